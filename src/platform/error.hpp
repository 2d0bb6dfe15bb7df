// The program's named errors. Every failure travels up the call chain as one
// of these names, unchanged, and is printed by its name.
#pragma once

#include <initializer_list>
#include <string_view>

namespace tovel {

#define TOVEL_ERROR_NAMES(X)                                                                       \
    X(Unexpected)                                                                                  \
    X(OutOfMemory)                                                                                 \
    X(SystemResources)                                                                             \
    X(WouldBlock)                                                                                  \
    X(Interrupted)                                                                                 \
    X(BrokenPipe)                                                                                  \
    X(ConnectionResetByPeer)                                                                       \
    X(ConnectionRefused)                                                                           \
    X(ConnectionAborted)                                                                           \
    X(ConnectionTimedOut)                                                                          \
    X(AddressInUse)                                                                                \
    X(AddressNotAvailable)                                                                         \
    X(AddressFamilyNotSupported)                                                                   \
    X(NetworkUnreachable)                                                                          \
    X(SocketNotConnected)                                                                          \
    X(FileNotFound)                                                                                \
    X(NotDir)                                                                                      \
    X(IsDir)                                                                                       \
    X(AccessDenied)                                                                                \
    X(PermissionDenied)                                                                            \
    X(ReadOnlyFileSystem)                                                                          \
    X(NameTooLong)                                                                                 \
    X(PathTooLong)                                                                                 \
    X(PathAlreadyExists)                                                                           \
    X(SymLinkLoop)                                                                                 \
    X(CrossDevice)                                                                                 \
    X(InputOutput)                                                                                 \
    X(FileSystem)                                                                                  \
    X(FileTooBig)                                                                                  \
    X(NoSpaceLeft)                                                                                 \
    X(DiskQuota)                                                                                   \
    X(FileBusy)                                                                                    \
    X(DeviceBusy)                                                                                  \
    X(NoDevice)                                                                                    \
    X(NotATerminal)                                                                                \
    X(ProcessOrphaned)                                                                             \
    X(ProcessNotFound)                                                                             \
    X(ProcessFdQuotaExceeded)                                                                      \
    X(SystemFdQuotaExceeded)                                                                       \
    X(InvalidArgument)                                                                             \
    X(BadFileDescriptor)                                                                           \
    X(OperationNotSupported)                                                                       \
    X(FileLocksNotSupported)                                                                       \
    X(InvalidExe)                                                                                  \
    X(InvalidCharacter)                                                                            \
    X(Overflow)                                                                                    \
    X(SetEnvironmentFailed)                                                                        \
    X(SetTerminalEnvironmentFailed)                                                                \
    X(UnknownOption)                                                                               \
    X(MissingOptionValue)                                                                          \
    X(DuplicateOption)                                                                             \
    X(InvalidOptionValue)                                                                          \
    X(InvalidDirectory)                                                                            \
    X(MissingDirectory)                                                                            \
    X(InvalidBaseDirectory)                                                                        \
    X(RuntimeDirNotOwned)                                                                          \
    X(InvalidSessionId)                                                                            \
    X(IncompleteLeaseMetadata)                                                                     \
    X(InvalidWorkspaceId)                                                                          \
    X(InvalidReplicaId)                                                                            \
    X(InvalidMigrationId)                                                                          \
    X(InvalidAgentKind)                                                                            \
    X(InvalidAdapterId)                                                                            \
    X(ValueTooLong)                                                                                \
    X(BadKeeperArgs)                                                                               \
    X(InvalidDimension)                                                                            \
    X(InvalidReadyFd)                                                                              \
    X(KeeperStartupTimeout)                                                                        \
    X(SessionAlreadyRunning)                                                                       \
    X(ProcessGroupFailed)                                                                          \
    X(SetControllingTerminalFailed)                                                                \
    X(ShellPathTooLong)                                                                            \
    X(ShellNameTooLong)                                                                            \
    X(CommandTooLong)                                                                              \
    X(ShellExecFailed)                                                                             \
    X(ShellExecTimeout)                                                                            \
    X(ShellExecHandshakeFailed)                                                                    \
    X(IoctlFailed)                                                                                 \
    X(MetadataTooLarge)                                                                            \
    X(SocketConfigurationFailed)                                                                   \
    X(InvalidFrameLength)                                                                          \
    X(InvalidFrame)                                                                                \
    X(FrameTooLarge)                                                                               \
    X(UnexpectedEof)                                                                               \
    X(NotAttached)                                                                                 \
    X(AlreadyAttached)                                                                             \
    X(InvalidWinsize)                                                                              \
    X(InvalidShutdownRequest)                                                                      \
    X(InputBackpressure)                                                                           \
    X(OutputBackpressure)                                                                          \
    X(IncompatibleVersion)                                                                         \
    X(ReconnectLimitReached)                                                                       \
    X(PortableMetadataUnsupported)                                                                 \
    X(PortableTakeoverClosed)                                                                      \
    X(InvalidPortableTakeoverRejection)                                                            \
    X(UnexpectedPortableTakeoverResponse)                                                          \
    X(StalePortableKeeper)                                                                         \
    X(StalePortableRequest)                                                                        \
    X(PortableMetadataMissing)                                                                     \
    X(PortableMetadataMismatch)                                                                    \
    X(PortableMetadataMalformed)

enum class Error {
#define TOVEL_ERROR_ENUMERATOR(name) name,
    TOVEL_ERROR_NAMES(TOVEL_ERROR_ENUMERATOR)
#undef TOVEL_ERROR_ENUMERATOR
};

// The error's name exactly as printed ("FileNotFound").
[[nodiscard]] std::string_view errorName(Error error);

// The one errno-to-name table. EINTR never reaches it: callers retry.
[[nodiscard]] Error errorFromErrno(int errnoValue);

// One renaming a narrowed error goes through (NotDir reported as
// FileNotFound).
struct ErrorRename {
    Error from;
    Error to;
};

// What a caller reports of a failure below it: the error itself when `kept`
// lists it, its new name when `renamed` lists it, anything else Unexpected.
// Pure computation, so a forked child may use it.
[[nodiscard]] Error narrowError(Error error, std::initializer_list<Error> kept,
                                std::initializer_list<ErrorRename> renamed = {});

// A failure to create a descriptor (pipe, socket) as callers report it:
// the two quota names pass, anything else is Unexpected.
[[nodiscard]] Error descriptorCreationError(Error error);

// A failure to start a process or thread as callers report it: running out
// (WouldBlock, SystemResources) is SystemResources, anything else Unexpected.
[[nodiscard]] Error processCreationError(Error error);

// An errno value by its symbolic name without the leading "E" ("NOENT").
// Values without a name print as "errno<n>" in a static per-value buffer.
[[nodiscard]] std::string_view errnoName(int errnoValue);

} // namespace tovel
