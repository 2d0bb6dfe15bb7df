// The attach client: joins the terminal to a session's keeper.
#pragma once

#include "cli/spawn_options.hpp"
#include "client/detach_key.hpp"
#include "client/greeting.hpp"
#include "platform/result.hpp"

#include <string_view>

namespace tovel {

struct AttachRequest {
    std::string_view id;
    const PortableMetadata& portable; // empty: no owner check
    DetachKey detachKey;
};

// How an attach ended.
struct AttachEnd {
    enum class How {
        ShellExited,     // the session is over; shellStatus holds the shell's status
        InputClosed,     // the keyboard closed or the detach key was pressed
        Interrupted,     // a signal, or the keeper could not be reached again
        VersionMismatch, // the keeper is another build: keeperVersion
        Refused,         // a newer owner holds the session, or the keeper
                         // cannot judge the takeover: refusal
    };
    How how;
    int shellStatus = 0;        // 0..255
    unsigned keeperVersion = 0; // the protocol version the keeper speaks
    TakeoverRefusal refusal{};
};

[[nodiscard]] Result<AttachEnd> attachSession(const AttachRequest& request);

} // namespace tovel
