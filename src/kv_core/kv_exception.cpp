// Exception construction: the message is formatted once, here.
#include "kv_core/kv_exception.h"

#include <cstdarg>
#include <cstdio>
#include <vector>

#include "kv_core/kv_static_vector.h"

namespace kv {

Exception::Exception(const Exception* inner, Status status, const char* function, const char* file, int line,
                     const char* format, ...)
    : _inner(inner ? std::make_shared<const Exception>(*inner) : nullptr),
      _status(status),
      _function(function ? function : ""),
      _file(file ? file : ""),
      _line(line) {
    if (!format) return;
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    char small[256];
    const int n = std::vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (n >= 0 && size_t(n) < sizeof small) {
        _message.assign(small, size_t(n));
    } else if (n >= 0) {
        std::vector<char> big(size_t(n) + 1);
        std::vsnprintf(big.data(), big.size(), format, again);
        _message.assign(big.data(), size_t(n));
    }
    va_end(again);
}

Exception::Exception(const Exception& other) = default;
Exception& Exception::operator=(const Exception& other) = default;
Exception::~Exception() = default;

namespace detail {

#define KV_SOURCE_FILE "include/kv_core/kv_static_vector"

static std::string staticVectorFunction(const char* type, size_t n, const char* method) {
    char name[96];
    std::snprintf(name, sizeof name, "kv::StaticVector<%s,%zu>::%s", type, n, method);
    return name;
}

void throwStaticVectorFull(const char* type, size_t n, const char* method) {
    KV_THROW(KV_STATUS_ASSERTION_FAILED, staticVectorFunction(type, n, method).c_str(),
             "No room for new element. StaticVector is full.");
}

void throwStaticVectorIndex(const char* type, size_t n, const char* method, unsigned long long index) {
    KV_THROW(KV_STATUS_OUT_OF_RANGE, staticVectorFunction(type, n, method).c_str(),
             "Parameter 'index' is out of range: %llu", index);
}

}  // namespace detail
}  // namespace kv
