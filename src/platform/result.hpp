// The result type every fallible call returns, and the early-return helper
// that keeps call sites short.
#pragma once

#include "platform/error.hpp"

#include <expected>

namespace tovel {

template <typename T = void> using Result = std::expected<T, Error>;

inline std::unexpected<Error> fail(Error error) {
    return std::unexpected<Error>(error);
}

} // namespace tovel

// Evaluates a Result; on failure returns its error from the enclosing
// function, otherwise yields the value (statement expression, GNU C++).
#define TRY(expression)                                                                            \
    ({                                                                                             \
        auto&& tovel_try_result_ = (expression);                                                   \
        if (!tovel_try_result_)                                                                    \
            return ::tovel::fail(tovel_try_result_.error());                                       \
        std::move(tovel_try_result_).value();                                                      \
    })
