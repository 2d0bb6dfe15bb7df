// Program entry: hands the argument vector to the front end.
#include "cli/commands/front_end.hpp"

#include <string_view>
#include <vector>

int main(int argc, char** argv) {
    std::vector<std::string_view> args(argv + (argc > 0 ? 1 : 0), argv + argc);
    return tovel::runFrontEnd(args);
}
