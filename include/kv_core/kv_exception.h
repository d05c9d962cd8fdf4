// The one exception type of the kv libraries, its status numbers and the
// throw/assert macros that record function, source path and line.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <string>

#include "kv_core/kv_core_export.h"

namespace kv {

// Error kinds. The numbers are part of the interface; callers test them.
enum Status : int32_t {
    KV_STATUS_OK = 0,
    KV_STATUS_ERROR = 1,
    KV_STATUS_ASSERTION_FAILED = 2,   // failed assertion, full internal buffer
    KV_STATUS_OUT_OF_MEMORY = 3,
    KV_STATUS_NULL_POINTER = 4,
    KV_STATUS_OUT_OF_RANGE = 5,
    KV_STATUS_INVALID_VALUE = 6,      // enumeration outside its values, uninitialised input
    KV_STATUS_NOT_INITIALIZED = 7,    // object used before reuse()
    KV_STATUS_NOT_SUPPORTED = 8,      // unsupported format, type, method or operation
    KV_STATUS_EMPTY_INPUT = 14,       // empty size or uninitialised source given to reuse()
    KV_STATUS_KERNEL_LIMIT = 19,      // kernel outside the fixed-point limits
    KV_STATUS_FORMAT_ERROR = 29,      // format the converter cannot describe
};

class KV_CORE_API Exception : public std::exception {
public:
    // `inner` is an optional cause (copied); `format` is printf-style and is
    // formatted into the message once, here.
    Exception(const Exception* inner, Status status, const char* function, const char* file, int line,
              const char* format, ...) __attribute__((format(printf, 7, 8)));
    Exception(const Exception& other);
    Exception& operator=(const Exception& other);
    ~Exception() override;

    Status status() const noexcept { return _status; }
    const std::string& message() const noexcept { return _message; }
    const std::string& function() const noexcept { return _function; }
    const std::string& file() const noexcept { return _file; }
    int line() const noexcept { return _line; }
    const Exception* inner() const noexcept { return _inner.get(); }
    const char* what() const noexcept override { return _message.c_str(); }

private:
    std::shared_ptr<const Exception> _inner;
    Status _status;
    std::string _function;
    std::string _file;
    int _line;
    std::string _message;
};

}  // namespace kv

// Each source file defines KV_SOURCE_FILE (its path below the source root)
// before using these. Lines are explicit where callers rely on them.
#define KV_THROW_LINE(status, function, line, ...) \
    throw ::kv::Exception(nullptr, static_cast<::kv::Status>(status), function, KV_SOURCE_FILE, line, __VA_ARGS__)
#define KV_THROW(status, function, ...) KV_THROW_LINE(status, function, __LINE__, __VA_ARGS__)

// Always-active assertion; the message carries the condition text as written.
#define KV_ASSERT_TEXT_LINE(cond, text, function, line)                                    \
    do {                                                                                   \
        if (!(cond)) KV_THROW_LINE(::kv::KV_STATUS_ASSERTION_FAILED, function, line,       \
                                   "Assertion failed: %s", text);                          \
    } while (0)
#define KV_ASSERT_LINE(cond, function, line) KV_ASSERT_TEXT_LINE(cond, #cond, function, line)
#define KV_ASSERT(cond, function) KV_ASSERT_TEXT_LINE(cond, #cond, function, __LINE__)
