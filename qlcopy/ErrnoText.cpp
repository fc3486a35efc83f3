#include "qlcopy/ErrnoText.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

namespace ql {

std::string ErrnoText::name(int error) {
    switch (error) {
#define QL_ERRNO_CASE(e) \
    case e:              \
        return #e;
        QL_ERRNO_CASE(EPERM)
        QL_ERRNO_CASE(ENOENT)
        QL_ERRNO_CASE(ESRCH)
        QL_ERRNO_CASE(EINTR)
        QL_ERRNO_CASE(EIO)
        QL_ERRNO_CASE(ENXIO)
        QL_ERRNO_CASE(E2BIG)
        QL_ERRNO_CASE(ENOEXEC)
        QL_ERRNO_CASE(EBADF)
        QL_ERRNO_CASE(ECHILD)
        QL_ERRNO_CASE(EAGAIN)
        QL_ERRNO_CASE(ENOMEM)
        QL_ERRNO_CASE(EACCES)
        QL_ERRNO_CASE(EFAULT)
        QL_ERRNO_CASE(EBUSY)
        QL_ERRNO_CASE(EEXIST)
        QL_ERRNO_CASE(EXDEV)
        QL_ERRNO_CASE(ENODEV)
        QL_ERRNO_CASE(ENOTDIR)
        QL_ERRNO_CASE(EISDIR)
        QL_ERRNO_CASE(EINVAL)
        QL_ERRNO_CASE(ENFILE)
        QL_ERRNO_CASE(EMFILE)
        QL_ERRNO_CASE(ENOTTY)
        QL_ERRNO_CASE(ETXTBSY)
        QL_ERRNO_CASE(EFBIG)
        QL_ERRNO_CASE(ENOSPC)
        QL_ERRNO_CASE(ESPIPE)
        QL_ERRNO_CASE(EROFS)
        QL_ERRNO_CASE(EMLINK)
        QL_ERRNO_CASE(EPIPE)
        QL_ERRNO_CASE(EDOM)
        QL_ERRNO_CASE(ERANGE)
        QL_ERRNO_CASE(EDEADLK)
        QL_ERRNO_CASE(ENAMETOOLONG)
        QL_ERRNO_CASE(ENOLCK)
        QL_ERRNO_CASE(ENOSYS)
        QL_ERRNO_CASE(ENOTEMPTY)
        QL_ERRNO_CASE(ELOOP)
        QL_ERRNO_CASE(ENOTSUP)
#if defined(EOPNOTSUPP) && EOPNOTSUPP != ENOTSUP
        QL_ERRNO_CASE(EOPNOTSUPP)
#endif
        QL_ERRNO_CASE(ENOTCONN)
        QL_ERRNO_CASE(ETIMEDOUT)
        QL_ERRNO_CASE(ECONNREFUSED)
        QL_ERRNO_CASE(EHOSTUNREACH)
        QL_ERRNO_CASE(ESTALE)
        QL_ERRNO_CASE(EDQUOT)
        QL_ERRNO_CASE(EOVERFLOW)
        QL_ERRNO_CASE(ECANCELED)
        QL_ERRNO_CASE(EILSEQ)
#ifdef ENODATA
        QL_ERRNO_CASE(ENODATA)
#endif
#if defined(ENOATTR) && (!defined(ENODATA) || ENOATTR != ENODATA)
        QL_ERRNO_CASE(ENOATTR)
#endif
#ifdef ENOKEY
        QL_ERRNO_CASE(ENOKEY)
#endif
#ifdef EKEYREVOKED
        QL_ERRNO_CASE(EKEYREVOKED)
#endif
#ifdef EUCLEAN
        QL_ERRNO_CASE(EUCLEAN)
#endif
#ifdef EREMOTEIO
        QL_ERRNO_CASE(EREMOTEIO)
#endif
#ifdef EAUTH
        QL_ERRNO_CASE(EAUTH)
#endif
#undef QL_ERRNO_CASE
        default:
            return fmt::format("errno {}", error);
    }
}

std::string ErrnoText::describe(int error) {
    return fmt::format("{} ({})", std::strerror(error), name(error));
}

}  // namespace ql
