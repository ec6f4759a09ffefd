// For tests of what is done when the system refuses a call. A test program that includes this replaces the
// calls that it names with REFUSABLE by ones that fail when a test says so, and are the system's otherwise.
#pragma once

#include <cerrno>
#include <climits>
#include <dlfcn.h>
#include <string>
#include <string_view>

namespace refusal
{

inline std::string call;     // the call that is refused; none when empty
inline int before = 0;       // so many of it go through first
inline int times = INT_MAX;  // so many are refused then
inline int reason = 0;       // the errno of the refused ones

inline bool is_due(std::string_view name)
{
    if (name != call || before-- > 0 || times-- <= 0)
        return false;
    errno = reason;
    return true;
}

template <typename CALL> CALL *original(const char *name)
{
    return reinterpret_cast<CALL *>(dlsym(RTLD_NEXT, name));
}

}  // namespace refusal

// `call` is refused while this lives.
class Refused
{
  public:
    explicit Refused(const char *call, int error, int before = 0, int times = INT_MAX)
    {
        refusal::call = call;
        refusal::before = before;
        refusal::times = times;
        refusal::reason = error;
    }
    ~Refused()
    {
        refusal::call.clear();
    }
    Refused(const Refused &) = delete;
    Refused &operator=(const Refused &) = delete;
};

// REFUSABLE(RESULT, NAME, (PARAMETERS), (ARGUMENTS), NOEXCEPT, ON REFUSAL)
#define REFUSABLE(type, name, parameters, arguments, exception, refused)                                     \
    extern "C" type name parameters exception                                                                \
    {                                                                                                        \
        static auto *const real = refusal::original<type parameters>(#name);                                 \
        if (refusal::is_due(#name))                                                                          \
            return refused;                                                                                  \
        return real arguments;                                                                               \
    }
