// miravel cache [--prune BYTES | --clear]
//
// Prints what the cache root holds: {"root", "bytes", "budget", "stores":
// {"waves": {"files", "bytes"}, "frames": {"files", "bytes"}}}, after
// removing its least recently used files until it holds at most BYTES
// (--prune), or every file (--clear). Files that this process uses are never
// removed; a file another process writes meanwhile comes back with its next
// write.
#include <string>

#include "Cli.h"
#include "Commands.h"
#include "DataModel/DmCache.h"
#include "Json.h"
#include "Limits.h"
#include "Usage.h"

namespace miravel {

std::string cacheJson(const CacheRequest& request) {
    const ZOR::DmCacheUsage usage = request.clear   ? ZOR::clearCache()
                                    : request.prune ? ZOR::pruneCache(*request.prune)
                                                    : ZOR::cacheUsage();
    JsonWriter json;
    json.beginObject()
        .key("root")
        .value(usage.root)
        .key("bytes")
        .value(usage.bytes)
        .key("budget")
        .value(usage.budget)
        .key("stores")
        .beginObject()
        .key("waves")
        .beginObject()
        .key("files")
        .value(usage.waves.files)
        .key("bytes")
        .value(usage.waves.bytes)
        .endObject()
        .key("frames")
        .beginObject()
        .key("files")
        .value(usage.frames.files)
        .key("bytes")
        .value(usage.frames.bytes)
        .endObject()
        .endObject()
        .endObject();
    return json.text();
}

int runCache(int argc, char** argv) {
    Arguments arguments(argc, argv, 2, commandSpec("cache"));
    if (!arguments.positional().empty()) throw UsageError("cache takes no operands");
    CacheRequest request;
    request.clear = arguments.has("clear");
    if (const auto prune = arguments.text("prune")) {
        if (request.clear) throw UsageError("--prune and --clear do not go together");
        int64_t bytes = 0;
        if (!ZOR::parseCacheBudget(*prune, &bytes))
            throw UsageError("--prune needs a number of bytes " + rangeText(limits::cacheBytes) + ", not '" +
                             printable(*prune) + "'");
        request.prune = bytes;
    }
    setupCommandLogging(arguments);
    printJson(cacheJson(request));
    return 0;
}

}  // namespace miravel
