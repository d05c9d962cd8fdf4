import sys
if "--list" in sys.argv:
    print("placeholder"); sys.exit(0)
sys.exit(77)
