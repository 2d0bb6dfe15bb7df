// The keeper suites' fixture: real sessions in a private runtime directory.
#pragma once

#include "support/session_fixture.hpp"

namespace tovel::test {
using KeeperFixture = SessionFixture;
} // namespace tovel::test
