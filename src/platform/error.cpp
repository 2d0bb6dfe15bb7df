// Error names and the errno tables.
#include "platform/error.hpp"

#include <cerrno>
#include <charconv>

namespace tovel {

std::string_view errorName(Error error) {
    switch (error) {
#define TOVEL_ERROR_CASE(name)                                                                     \
    case Error::name:                                                                              \
        return #name;
        TOVEL_ERROR_NAMES(TOVEL_ERROR_CASE)
#undef TOVEL_ERROR_CASE
    }
    return "Unexpected";
}

Error errorFromErrno(int errnoValue) {
    switch (errnoValue) {
    case EAGAIN:
        return Error::WouldBlock;
    case EINTR:
        return Error::Interrupted;
    case ENOMEM:
    case ENOBUFS:
        return Error::SystemResources;
    case EPIPE:
        return Error::BrokenPipe;
    case ECONNRESET:
        return Error::ConnectionResetByPeer;
    case ECONNREFUSED:
        return Error::ConnectionRefused;
    case ECONNABORTED:
        return Error::ConnectionAborted;
    case ETIMEDOUT:
        return Error::ConnectionTimedOut;
    case EADDRINUSE:
        return Error::AddressInUse;
    case EADDRNOTAVAIL:
        return Error::AddressNotAvailable;
    case EAFNOSUPPORT:
        return Error::AddressFamilyNotSupported;
    case ENETUNREACH:
        return Error::NetworkUnreachable;
    case ENOTCONN:
        return Error::SocketNotConnected;
    case ENOENT:
        return Error::FileNotFound;
    case ENOTDIR:
        return Error::NotDir;
    case EISDIR:
        return Error::IsDir;
    case EACCES:
        return Error::AccessDenied;
    case EPERM:
        return Error::PermissionDenied;
    case EROFS:
        return Error::ReadOnlyFileSystem;
    case ENAMETOOLONG:
        return Error::NameTooLong;
    case EEXIST:
        return Error::PathAlreadyExists;
    case ELOOP:
        return Error::SymLinkLoop;
    case EXDEV:
        return Error::CrossDevice;
    case EIO:
        return Error::InputOutput;
    case EFBIG:
        return Error::FileTooBig;
    case ENOSPC:
        return Error::NoSpaceLeft;
    case EDQUOT:
        return Error::DiskQuota;
    case ETXTBSY:
        return Error::FileBusy;
    case EBUSY:
        return Error::DeviceBusy;
    case ENODEV:
    case ENXIO:
        return Error::NoDevice;
    case ENOTTY:
        return Error::NotATerminal;
    case ESRCH:
        return Error::ProcessNotFound;
    case EMFILE:
        return Error::ProcessFdQuotaExceeded;
    case ENFILE:
        return Error::SystemFdQuotaExceeded;
    case EINVAL:
        return Error::InvalidArgument;
    case EBADF:
        return Error::BadFileDescriptor;
    case EOPNOTSUPP:
        return Error::OperationNotSupported;
    case ENOEXEC:
        return Error::InvalidExe;
    default:
        return Error::Unexpected;
    }
}

Error narrowError(Error error, std::initializer_list<Error> kept,
                  std::initializer_list<ErrorRename> renamed) {
    for (Error name : kept) {
        if (name == error)
            return error;
    }
    for (ErrorRename rename : renamed) {
        if (rename.from == error)
            return rename.to;
    }
    return Error::Unexpected;
}

Error descriptorCreationError(Error error) {
    return narrowError(error, {Error::ProcessFdQuotaExceeded, Error::SystemFdQuotaExceeded});
}

Error processCreationError(Error error) {
    return narrowError(error, {Error::SystemResources},
                       {{Error::WouldBlock, Error::SystemResources}});
}

std::string_view errnoName(int errnoValue) {
    switch (errnoValue) {
#define TOVEL_ERRNO_CASE(name)                                                                     \
    case E##name:                                                                                  \
        return #name;
        TOVEL_ERRNO_CASE(PERM)
        TOVEL_ERRNO_CASE(NOENT)
        TOVEL_ERRNO_CASE(SRCH)
        TOVEL_ERRNO_CASE(INTR)
        TOVEL_ERRNO_CASE(IO)
        TOVEL_ERRNO_CASE(NXIO)
        TOVEL_ERRNO_CASE(2BIG)
        TOVEL_ERRNO_CASE(NOEXEC)
        TOVEL_ERRNO_CASE(BADF)
        TOVEL_ERRNO_CASE(CHILD)
        TOVEL_ERRNO_CASE(AGAIN)
        TOVEL_ERRNO_CASE(NOMEM)
        TOVEL_ERRNO_CASE(ACCES)
        TOVEL_ERRNO_CASE(FAULT)
        TOVEL_ERRNO_CASE(BUSY)
        TOVEL_ERRNO_CASE(EXIST)
        TOVEL_ERRNO_CASE(XDEV)
        TOVEL_ERRNO_CASE(NODEV)
        TOVEL_ERRNO_CASE(NOTDIR)
        TOVEL_ERRNO_CASE(ISDIR)
        TOVEL_ERRNO_CASE(INVAL)
        TOVEL_ERRNO_CASE(NFILE)
        TOVEL_ERRNO_CASE(MFILE)
        TOVEL_ERRNO_CASE(NOTTY)
        TOVEL_ERRNO_CASE(TXTBSY)
        TOVEL_ERRNO_CASE(FBIG)
        TOVEL_ERRNO_CASE(NOSPC)
        TOVEL_ERRNO_CASE(SPIPE)
        TOVEL_ERRNO_CASE(ROFS)
        TOVEL_ERRNO_CASE(MLINK)
        TOVEL_ERRNO_CASE(PIPE)
        TOVEL_ERRNO_CASE(NAMETOOLONG)
        TOVEL_ERRNO_CASE(NOSYS)
        TOVEL_ERRNO_CASE(NOTEMPTY)
        TOVEL_ERRNO_CASE(LOOP)
        TOVEL_ERRNO_CASE(NOTSOCK)
        TOVEL_ERRNO_CASE(AFNOSUPPORT)
        TOVEL_ERRNO_CASE(ADDRINUSE)
        TOVEL_ERRNO_CASE(ADDRNOTAVAIL)
        TOVEL_ERRNO_CASE(NETUNREACH)
        TOVEL_ERRNO_CASE(CONNABORTED)
        TOVEL_ERRNO_CASE(CONNRESET)
        TOVEL_ERRNO_CASE(NOBUFS)
        TOVEL_ERRNO_CASE(NOTCONN)
        TOVEL_ERRNO_CASE(TIMEDOUT)
        TOVEL_ERRNO_CASE(CONNREFUSED)
        TOVEL_ERRNO_CASE(OPNOTSUPP)
        TOVEL_ERRNO_CASE(DQUOT)
#undef TOVEL_ERRNO_CASE
    default:
        break;
    }
    // Unnamed values: "errno" and the number. Thread-local so concurrent
    // loggers never share the buffer.
    thread_local char unnamed[24] = "errno";
    char* end = std::to_chars(unnamed + 5, unnamed + sizeof unnamed, errnoValue).ptr;
    return std::string_view(unnamed, static_cast<std::size_t>(end - unnamed));
}

} // namespace tovel
