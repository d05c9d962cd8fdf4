// Export macro of the kv_cv shared library: symbols are hidden by default,
// the public API is marked KV_CV_API.
#pragma once

#define KV_CV_API __attribute__((visibility("default")))
