#include "Usage.h"

#include <stdexcept>

#include "Limits.h"

namespace miravel {

namespace {

const OptionSpec kTimeout{"timeout", "SECONDS", "how long to wait for the library's answers (default 600)"};

std::string synopsis(const CommandSpec& command) {
    std::string text = command.name;
    if (*command.operands != '\0') {
        text += ' ';
        text += command.operands;
    }
    for (const OptionSpec& option : command.required) {
        text += " --";
        text += option.name;
        if (*option.value != '\0') {
            text += ' ';
            text += option.value;
        }
    }
    for (const OptionSpec& option : command.optional) {
        if (std::string_view(option.name) == "timeout") continue;  // said once for every command
        text += " [--";
        text += option.name;
        if (*option.value != '\0') {
            text += ' ';
            text += option.value;
        }
        text += ']';
    }
    return text;
}

}  // namespace

const std::vector<CommandSpec>& commandTable() {
    static const std::vector<CommandSpec> table{
        {"version", "", "the version and the library's keys", {}, {}},
        {"wave",
         "MEDIA",
         "waveform values of an audio stream (the peak of each millisecond, 40 a frame at 25/s)",
         {{"begin", "CNS", "the first time"},
          {"end", "CNS", "the time after the last"},
          {"samples", "N", "how many values the range is divided into"}},
         {{"stream", "N", "the container's stream index (-1: the best audio stream)"}, kTimeout}},
        {"peaks",
         "MEDIA",
         "a peak-true waveform: the largest millisecond value in each of N buckets, from the wave store (what it "
         "lacks is extracted and kept)",
         {{"points", "N", "how many buckets the range is divided into"}},
         {{"stream", "N", "the container's stream index (-1: the best audio stream)"},
          {"begin", "CNS", "the first time (with --end; default: the whole stream)"},
          {"end", "CNS", "the time the buckets end at (with --begin)"},
          {"channels", "", "each channel's values too"},
          kTimeout}},
        {"cache",
         "",
         "what the cache root holds (wave store and frame store), and its budget (MIRAVEL_CACHE_BUDGET)",
         {},
         {{"prune", "BYTES", "remove the least recently used files until at most BYTES are held"},
          {"clear", "", "remove every file not in use"}}},
        {"frames",
         "MEDIA",
         "the exact frames shown at media times, as PNG files in the frame store",
         {{"times", "T1,T2,...", "media times in cns"}, {"size", "WxH", "the box the pictures are fitted into"}},
         {{"stream", "N", "the container's stream index (-1: the best video stream)"}, kTimeout}},
        {"audio",
         "DOC",
         "the audio thumbnail of a clip through the clip thumbnail service",
         {{"clip", "NAME", "the clip's name in the document"}, {"points", "N", "how many values"}},
         {{"begin", "CNS", "clip time of the first point (with --end)"},
          {"end", "CNS", "clip time the points end at (with --begin)"},
          {"no-ducking", "", "leave ducking out"},
          kTimeout}},
        {"video",
         "DOC",
         "pictures of a clip at media times through the clip thumbnail service, as PNG files",
         {{"clip", "NAME", "the clip's name in the document"},
          {"times", "T1,T2,...", "media times in cns"},
          {"size", "WxH", "the box the pictures are fitted into"},
          {"out", "DIR", "the folder the pictures are written to"}},
         {{"refresh", "", "decode again what is cached"}, kTimeout}},
        {"render",
         "DOC",
         "the timeline picture: each track with its clips' frame strips and waveforms",
         {{"out", "PNG", "the picture's file"}},
         {{"width", "W", "the picture's width"},
          {"split-channels", "", "each channel's waveform in a lane of its own"},
          kTimeout}},
        {"media",
         "MEDIA",
         "media thumbnails through the media thumbnail manager, coarse to fine (those already on disk from an "
         "earlier run over DIR are not made again, nor listed)",
         {{"root", "DIR", "the folder of the pictures (they go in DIR/media_thumbnail)"}},
         {{"count", "N", "how many pictures spread over the file (default 100)"},
          {"box", "WxH", "the box the pictures are fitted into (default 320x180)"},
          {"position", "P", "where the item is asked for, 0 to 1 of the file (default 0)"},
          {"seek", "exact|keyframe", "the exact frame, or the keyframe at or before each time"},
          kTimeout}},
        {"demo",
         "",
         "sample media, a timeline document and every pipeline on them",
         {},
         {{"out", "DIR", "the folder to write into (default ./miravel-demo)"}, kTimeout}},
    };
    return table;
}

const CommandSpec& commandSpec(std::string_view name) {
    for (const CommandSpec& command : commandTable())
        if (name == command.name) return command;
    std::string message = "no command ";
    message += name;
    throw std::out_of_range(message);
}

std::string commandUsage(const CommandSpec& command) {
    // Built by appending: GCC 12 warns wrongly about some operator+ chains.
    std::string text = "usage: miravel ";
    text += synopsis(command);
    text += '\n';
    text += command.summary;
    text += '\n';
    const auto list = [&](const std::vector<OptionSpec>& options) {
        for (const OptionSpec& option : options) {
            std::string line = "  --";
            line += option.name;
            if (*option.value != '\0') {
                line += ' ';
                line += option.value;
            }
            if (line.size() < 26)
                line.resize(26, ' ');
            else
                line += "  ";
            text += line;
            text += option.help;
            text += '\n';
        }
    };
    list(command.required);
    list(command.optional);
    text += "  --log SEVERITY          the library's log lines on stderr (also MIRAVEL_LOG)\n";
    text += "  --log-file PATH         the library's log lines into a file\n";
    return text;
}

std::string usageText() {
    std::string text = "usage: miravel <command> [options]   (miravel <command> --help for one command)\ncommands:\n";
    for (const CommandSpec& command : commandTable()) {
        text += "  ";
        text += synopsis(command);
        text += '\n';
    }
    text +=
        "options of every command: --log <severity>, --log-file <path>;\n"
        "of those that wait for the library: --timeout SECONDS (default 600)\n";
    text += limitsText();
    return text;
}

}  // namespace miravel
