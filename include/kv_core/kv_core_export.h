// Export macro of the kv_core shared library: symbols are hidden by default,
// the public API is marked KV_CORE_API.
#pragma once

#define KV_CORE_API __attribute__((visibility("default")))
