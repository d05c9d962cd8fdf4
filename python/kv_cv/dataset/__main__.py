"""python3 -m kv_cv.dataset build SOURCES OUT [options]: a data set store from a folder, a glob or a list
of images, on a local cluster or a running Dask cluster (--scheduler). python3 -m kv_cv.dataset info OUT
tells how a store was made and what failed.

Exit status: 0 done (items that failed are recorded in the store, not errors); 1 tasks failed, the
scheduler could not be reached or the output could not be written (run the same command again to
finish); 2 bad arguments or an output folder that holds something else; 130 interrupted (run the same
command again to finish)."""

import argparse
import json
import logging
import os
import sys

from ._items import DEFAULT_METHOD, DTYPES, LAYOUTS, MAX_PIXELS, ORDERS, parse_size


def _size(text: str):
    try:
        return parse_size(text)
    except ValueError as e:
        raise argparse.ArgumentTypeError(str(e)) from None


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="python3 -m kv_cv.dataset", description=__doc__.split("\n\n")[0])
    commands = parser.add_subparsers(dest="command", required=True)
    b = commands.add_parser("build", help="build or finish a data set store",
                            description="Decodes, crops, resizes and normalises every item into a Zarr store; "
                                        "a rerun writes only the chunks still missing.")
    b.add_argument("sources", help="a folder (recursive), a glob, an image or a text file of paths")
    b.add_argument("out", help="the Zarr store to write (a folder)")
    b.add_argument("--size", default="224x224", type=_size, help="item size WxH (default 224x224)")
    b.add_argument("--dtype", default="uint8", choices=DTYPES, help="item type (default uint8)")
    b.add_argument("--layout", default="nchw", choices=LAYOUTS, help="N x C x H x W or N x H x W x C")
    b.add_argument("--order", default="rgb", choices=ORDERS, help="channel order (default rgb)")
    b.add_argument("--letterbox", action="store_true", help="keep each region's aspect ratio between black bars")
    b.add_argument("--mean", help="one value or R,G,B (float dtypes): items hold (v - mean) / std")
    b.add_argument("--std", help="one value or R,G,B (float dtypes)")
    b.add_argument("--method", default=DEFAULT_METHOD, help=f"kv_cv.resize method (default {DEFAULT_METHOD})")
    b.add_argument("--boxes", help="CSV path,x,y,w,h[,label]: one item per row; relative paths from SOURCES")
    b.add_argument("--chunk", default=512, type=int, help="items per chunk and per task (default 512)")
    b.add_argument("--scheduler", help="address of a running Dask scheduler, e.g. tcp://10.0.0.1:8786")
    b.add_argument("--workers", type=int, help="local worker processes (default: one per core)")
    b.add_argument("--full-decode", action="store_true", help="decode JPEGs in full (no shrink-on-load)")
    b.add_argument("--max-pixels", type=int, default=MAX_PIXELS, help=f"larger images fail (default {MAX_PIXELS})")
    b.add_argument("--overwrite", action="store_true", help="rebuild a store made with other parameters")
    b.add_argument("--quiet", action="store_true", help="no progress bar and no summary")
    i = commands.add_parser("info", help="how a store was made, and its failures")
    i.add_argument("out", help="the Zarr store")
    i.add_argument("--json", action="store_true", help="print the attributes as JSON")
    return parser


def _build(args) -> int:
    from ._build import BuildError, build
    from ._store import StoreMismatch

    if args.scheduler and args.workers:
        print("error: --workers starts a local cluster; it does not go with --scheduler", file=sys.stderr)
        return 2
    say = (lambda text: None) if args.quiet else (lambda text: print(text, file=sys.stderr))
    # A connection attempt that lost a race on a busy machine leaves asyncio's "Future exception was never
    # retrieved" behind: Dask's business, not the user's. --quiet keeps Dask's warnings off too.
    import distributed  # noqa: F401 (its import sets up its loggers: levels set before would be reset)

    logging.getLogger("asyncio").setLevel(logging.CRITICAL)
    if args.quiet:
        logging.getLogger("distributed").setLevel(logging.ERROR)
    client = None
    try:
        if args.scheduler:
            from ._build import _connect

            client = _connect(args.scheduler)
        result = build(args.sources, args.out, size=args.size, dtype=args.dtype, layout=args.layout,
                       order=args.order, letterbox=args.letterbox, mean=args.mean, std=args.std,
                       method=args.method, boxes=args.boxes, chunk=args.chunk, client=client, workers=args.workers,
                       full_decode=args.full_decode, max_pixels=args.max_pixels, overwrite=args.overwrite,
                       progress=not args.quiet)
    except KeyboardInterrupt:
        print(f"interrupted: the chunks written so far are kept; run the same command again to finish {args.out}",
              file=sys.stderr)
        return 130
    except (StoreMismatch, ValueError, TypeError) as e:
        print(f"error: {e}", file=sys.stderr)
        return 2
    except (BuildError, OSError) as e:  # failed tasks, an unreachable scheduler, an output that cannot be made
        print(f"error: {e}", file=sys.stderr)
        return 1
    finally:
        if client is not None:
            client.close()
    if result.written == 0:
        say(f"{args.out}: complete, {result.items} items ({len(result.failures)} failed); nothing to do")
    else:
        rate = f", {result.seconds:.1f} s" if result.seconds else ""
        resumed = f" ({result.skipped} were already written)" if result.skipped else ""
        say(f"{args.out}: {result.items} items, {result.valid} valid, {len(result.failures)} failed; "
            f"{result.written} of {result.chunks} chunks written{resumed}{rate}")
    for failure in result.failures[:10]:
        say(f"  failed: {failure['path']}{' ' + str(tuple(failure['box'])) if failure['box'] else ''}: "
            f"{failure['reason']}")
    if len(result.failures) > 10:
        say(f"  ... and {len(result.failures) - 10} more: python3 -m kv_cv.dataset info {args.out}")
    return 0


def _info(args) -> int:
    from ._store import read_attrs

    attrs = read_attrs(args.out)
    if attrs is None:
        print(f"error: {args.out} is not a kv_cv data set", file=sys.stderr)
        return 2
    if args.json:
        print(json.dumps(attrs, indent=1))
        return 0
    p = attrs["parameters"]
    state = "complete" if attrs.get("complete") else "incomplete (run the build again to finish it)"
    print(f"{os.path.abspath(args.out)}: {attrs['items']} items, {state}")
    print(f"  made by kv_cv {attrs['library_version']}, decode {attrs['decode']}, method {p['method']}")
    print("  " + ", ".join(f"{k} {v}" for k, v in p.items() if k not in ("method", "full_decode")))
    if attrs.get("complete"):
        print(f"  {attrs['valid_items']} valid, {len(attrs['failures'])} failed")
    for failure in attrs.get("failures", []):
        print(f"  {failure['index']}: {failure['path']} {failure['box'] or ''}: {failure['reason']}")
    return 0


def main(argv=None) -> int:
    args = _parser().parse_args(argv)
    return _build(args) if args.command == "build" else _info(args)


if __name__ == "__main__":
    sys.exit(main())
