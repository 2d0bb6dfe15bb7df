// The spawn-option parser over NUL-separated arguments (the first byte picks
// the option set). Whatever it accepts must survive the two records that
// carry it on: the takeover request and the session's metadata file.
#include "cli/session_metadata.hpp"
#include "cli/spawn_options.hpp"
#include "client/protocol/portable_takeover.hpp"

#include <cstdlib>
#include <vector>

using namespace tovel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    std::vector<std::string_view> args;
    for (std::size_t end; (end = rest.find('\0')) != std::string_view::npos;
         rest.remove_prefix(end + 1))
        args.push_back(rest.substr(0, end));
    args.push_back(rest);
    auto allowed = data[0] & 1 ? OptionSet::DimensionsOnly : OptionSet::All;
    auto options = parseSpawnOptions(args, allowed);
    if (!options)
        return 0;
    auto request = encodePortableTakeover(options->portable);
    if (!request || decodePortableTakeover(*request) != options->portable)
        std::abort();
    SessionMetadata metadata{1, 2, options->cols, options->rows,
                             3, 4, options->cwd,  options->portable};
    auto text = formatSessionMetadata(metadata);
    MetadataRecord record = parseSessionMetadata(text ? *text : "");
    if (!text || !record.ok || record.metadata.portable != options->portable)
        std::abort();
    return 0;
}
