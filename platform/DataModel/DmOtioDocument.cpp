// Timeline documents: OpenTimelineIO JSON read into a DmTimelineDesc.
//
// A document that cannot be read gives exactly one line in *error:
//   <path>: cannot open: <strerror text>
//       the file could not be opened or read;
//   <path>: invalid JSON at byte <n>: <parser message>
//       the text is not JSON; n counts the bytes read up to the fault;
//   <path>: <JSON path>: expected <what>
//       the JSON is not a timeline document;
//   <path>: cannot read: <reason>
//       out of memory and the like.
// <path> is the path as the caller gave it; the JSON path is written as
// $.tracks.children[1].children[0].metadata.miravel.volume_db, with keys that
// are not identifiers in brackets ($.media_references["my clip"]).
//
// A document that can be read but holds things Miravel leaves out gives one
// warning line each in desc->warnings, "<path>: <JSON path>: <what was done>",
// also logged at warning severity: an item of an unknown schema inside a
// track (taken as a gap of its duration), a track of another kind than
// "Video" or "Audio" (left out), time effects on a composition (not applied),
// a media reference of an unknown schema (missing media), and the timelines
// after the first of a SerializableCollection.1 (not read).
//
// Times are RationalTime values converted as llround(value / rate x 10^7)
// cns each; everything derived from them is computed in cns.
//
// Stacks and tracks nested inside a track are flattened into it: a nested
// track lays its items end to end, a nested stack shows at each instant its
// topmost child that has an enabled clip there (gaps and disabled items let
// the children below show through; where none has, what its bottom child has
// there stays), and only the composition's source_range of the result takes
// its place on the parent. Clips cut at those edges keep playing, at every
// instant that remains, the media position they played before.
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "Common/ZorInternalComUtility.h"
#include "DataModel/DmTime.h"
#include "DataModel/DmTimeline.h"
#include "DmClipTimeMapping.h"

ZOR_LOG_SOURCE("platform/DataModel/DmOtioDocument")

namespace ZOR {
namespace {

using Json = nlohmann::json;

// 2^63: a time in cns must stay below this in magnitude.
constexpr double kCnsLimit = 9223372036854775808.0;
constexpr const char* kTimeRangeText = "a time between -922337203685 and 922337203685 seconds";

// Compositions nested deeper than this inside a track are refused: each level
// costs stack and a longer JSON path, and no editor writes anything near it.
constexpr int kMaxNesting = 64;

// ---------------------------------------------------------------------------
// Reading the JSON text.

bool readWholeFile(const char* path, std::string* text, int* failure) {
    errno = 0;
    std::FILE* file = std::fopen(path, "rb");
    if (file == nullptr) {
        *failure = errno != 0 ? errno : EIO;
        return false;
    }
    char buffer[65536];
    for (;;) {
        errno = 0;
        const size_t got = std::fread(buffer, 1, sizeof buffer, file);
        text->append(buffer, got);
        if (got < sizeof buffer) {
            if (std::ferror(file) != 0) {
                *failure = errno != 0 ? errno : EIO;
                std::fclose(file);
                return false;
            }
            break;
        }
    }
    std::fclose(file);
    return true;
}

// A number literal that JSON has no word for, as the n-th number of the text.
struct NonFiniteLiteral {
    size_t ordinal = 0;
    double value = 0.0;
};

bool isTokenCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '.' ||
           c == '+' || c == '-';
}

// Where a value may start: the beginning, after blanks, ',', ':' or '['.
bool mayPrecedeValue(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == ',' || c == ':' || c == '[';
}

// OpenTimelineIO writes infinite and undefined numbers as the bare words Inf,
// -Inf, Infinity, -Infinity and NaN (-NaN read too), which JSON lacks. Each
// one outside strings is overwritten in place by "0" and blanks, so that the
// parser accepts it and every byte keeps its offset (parse errors name bytes
// of the text as written); its value is kept with the count of numbers before
// it, and the tree builder puts it back when that number arrives. The parser
// reports the numbers of a valid text one by one in text order, and outside
// strings a number is exactly a run of token characters starting with '-' or
// a digit, so the counts agree.
std::vector<NonFiniteLiteral> replaceNonFiniteLiterals(std::string* text) {
    std::vector<NonFiniteLiteral> found;
    std::string& t = *text;
    const size_t size = t.size();
    size_t numbers = 0;
    size_t i = 0;
    while (i < size) {
        const char c = t[i];
        if (c == '"') {
            for (++i; i < size && t[i] != '"'; ++i)
                if (t[i] == '\\') ++i;
            ++i;
            continue;
        }
        if (!isTokenCharacter(c)) {
            ++i;
            continue;
        }
        size_t end = i + 1;
        while (end < size && isTokenCharacter(t[end])) ++end;
        const std::string_view token(t.data() + i, end - i);
        const std::string_view word = token.front() == '-' ? token.substr(1) : token;
        const bool negative = token.front() == '-';
        double value = 0.0;
        bool literal = i == 0 || mayPrecedeValue(t[i - 1]);
        if (word == "Inf" || word == "Infinity")
            value = negative ? -std::numeric_limits<double>::infinity() : std::numeric_limits<double>::infinity();
        else if (word == "NaN")
            value = std::numeric_limits<double>::quiet_NaN();
        else
            literal = false;
        if (literal) {
            found.push_back({numbers, value});
            t[i] = '0';
            std::fill(t.begin() + static_cast<std::ptrdiff_t>(i + 1), t.begin() + static_cast<std::ptrdiff_t>(end),
                      ' ');
            ++numbers;
        } else if (c == '-' || (c >= '0' && c <= '9')) {
            ++numbers;
        }
        i = end;
    }
    return found;
}

// Builds the document tree and keeps where parsing stopped, with the parser's
// message, instead of throwing it away with the exception. The numbers that
// stand for non-finite literals get their values back.
class TreeBuilder final : public nlohmann::json_sax<Json> {
public:
    explicit TreeBuilder(std::vector<NonFiniteLiteral> literals) : literals_(std::move(literals)) {}

    Json root;
    bool failed = false;
    size_t failedAt = 0;
    std::string message;

    bool null() override { return add(Json(nullptr)); }
    bool boolean(bool value) override { return add(Json(value)); }
    bool number_integer(number_integer_t value) override { return addNumber(Json(value)); }
    bool number_unsigned(number_unsigned_t value) override { return addNumber(Json(value)); }
    bool number_float(number_float_t value, const string_t& /*text*/) override { return addNumber(Json(value)); }
    bool string(string_t& value) override { return add(Json(std::move(value))); }
    bool binary(binary_t& value) override { return add(Json::binary(std::move(value))); }
    bool start_object(std::size_t /*elements*/) override { return open(Json::object()); }
    bool key(string_t& value) override {
        key_ = std::move(value);
        return true;
    }
    bool end_object() override { return close(); }
    bool start_array(std::size_t /*elements*/) override { return open(Json::array()); }
    bool end_array() override { return close(); }
    bool parse_error(std::size_t position, const std::string& /*token*/, const Json::exception& failure) override {
        failed = true;
        failedAt = position;
        message = shortMessage(failure.what());
        return false;
    }

private:
    std::vector<Json*> open_;
    std::string key_;
    std::vector<NonFiniteLiteral> literals_;
    size_t nextLiteral_ = 0;
    size_t numbers_ = 0;

    Json* place(Json value) {
        if (open_.empty()) {
            root = std::move(value);
            return &root;
        }
        Json& parent = *open_.back();
        if (parent.is_array()) {
            parent.push_back(std::move(value));
            return &parent.back();
        }
        Json& slot = parent[key_];
        slot = std::move(value);
        return &slot;
    }
    bool add(Json value) {
        place(std::move(value));
        return true;
    }
    bool addNumber(Json value) {
        if (nextLiteral_ < literals_.size() && literals_[nextLiteral_].ordinal == numbers_)
            value = Json(literals_[nextLiteral_++].value);
        ++numbers_;
        return add(std::move(value));
    }
    bool open(Json value) {
        open_.push_back(place(std::move(value)));
        return true;
    }
    bool close() {
        if (!open_.empty()) open_.pop_back();
        return true;
    }

    // "[json.exception.parse_error.101] parse error at line 1, column 2:
    // syntax error while parsing value - invalid literal; last read: 'x'"
    // becomes "syntax error while parsing value - invalid literal": the
    // position is given as a byte offset and the token read may be long.
    static std::string shortMessage(std::string_view text) {
        if (!text.empty() && text.front() == '[') {
            const size_t end = text.find("] ");
            if (end != std::string_view::npos) text.remove_prefix(end + 2);
        }
        if (text.substr(0, 11) == "parse error") {
            const size_t colon = text.find(": ");
            if (colon != std::string_view::npos) text.remove_prefix(colon + 2);
        }
        std::string result(text);
        const size_t lastRead = result.find("; last read: ");
        if (lastRead != std::string::npos) {
            const size_t expected = result.rfind("; expected ");
            if (expected != std::string::npos && expected > lastRead)
                result.erase(lastRead, expected - lastRead);
            else
                result.erase(lastRead);
        }
        for (char& c : result)
            if (c == '\n' || c == '\r') c = ' ';
        return result;
    }
};

// ---------------------------------------------------------------------------
// JSON paths.

bool isIdentifier(std::string_view key) {
    if (key.empty()) return false;
    for (size_t i = 0; i < key.size(); ++i) {
        const char c = key[i];
        const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
        const bool digit = c >= '0' && c <= '9';
        if (!letter && !(digit && i > 0)) return false;
    }
    return true;
}

std::string member(const std::string& path, std::string_view key) {
    if (isIdentifier(key)) return path + "." + std::string(key);
    return path + "[" + Json(std::string(key)).dump(-1, ' ', true, Json::error_handler_t::replace) + "]";
}

std::string element(const std::string& path, size_t index) { return path + "[" + std::to_string(index) + "]"; }

std::string quoted(std::string_view text) {
    std::string result;
    result.reserve(text.size() + 2);
    result += '"';
    result.append(text);
    result += '"';
    return result;
}

// ---------------------------------------------------------------------------
// The reader.

const Json* find(const Json& object, std::string_view key) {
    if (!object.is_object()) return nullptr;
    const auto it = object.find(std::string(key));
    return it == object.end() ? nullptr : &*it;
}

// A member that OpenTimelineIO may leave out or write as null.
const Json* present(const Json& object, std::string_view key) {
    const Json* value = find(object, key);
    return value == nullptr || value->is_null() ? nullptr : value;
}

bool addCns(int64_t a, int64_t b, int64_t* sum) { return !__builtin_add_overflow(a, b, sum); }

bool toCns(double seconds, int64_t* cns) {
    const double scaled = seconds * static_cast<double>(kCnsPerSecond);
    if (!std::isfinite(scaled) || std::fabs(scaled) >= kCnsLimit) return false;
    *cns = std::llround(scaled);
    return true;
}

bool subCns(int64_t a, int64_t b, int64_t* difference) { return !__builtin_sub_overflow(a, b, difference); }

// A name or schema as it appears in a warning: quoted, with control
// characters escaped, so the warning stays one line.
std::string quotedForWarning(std::string_view text) {
    return Json(std::string(text)).dump(-1, ' ', false, Json::error_handler_t::replace);
}

// cns as seconds, in the shortest form that reads back to the same double.
std::string secondsText(int64_t cns) {
    char buffer[64];
    const double seconds = static_cast<double>(cns) / static_cast<double>(kCnsPerSecond);
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, seconds);
    return std::string(buffer, result.ptr);
}

struct Range {
    int64_t start = 0;
    int64_t duration = 0;
    // An available_range may have a duration that is not a finite time (Inf,
    // NaN); it is a fault only where the duration is used. durationPath names
    // it for that fault.
    bool durationKnown = true;
    std::string durationPath;
};

// A media reference, read.
struct Reference {
    std::string mediaPath;  // empty: no media Miravel can decode
    bool hasAvailable = false;
    Range available;
};

// Clips laid out from 0 in timeline order, without overlaps, and the room the
// whole takes ([0, length)).
struct Layer {
    int64_t length = 0;
    std::vector<DmClipDesc> clips;
};

std::vector<DmSpeedPartDesc> sortedParts(std::vector<DmSpeedPartDesc> parts) {
    std::stable_sort(parts.begin(), parts.end(),
                     [](const DmSpeedPartDesc& a, const DmSpeedPartDesc& b) { return a.begin < b.begin; });
    return parts;
}

// The clip cut to [from, to) of its timeline range (begin <= from < to <=
// end), playing at every instant that remains the media position it played
// there before (up to the rounding to whole cns of the stretch cut off at a
// speed other than 1). The clip time of each remaining instant moves by the
// same amount, and keyframes and speed parts with it. False when a time
// leaves the cns range.
bool trimClip(const DmClipDesc& clip, int64_t from, int64_t to, DmClipDesc* out) {
    *out = clip;
    if (from == clip.begin && to == clip.end) return true;
    int64_t cut = 0;     // timeline (and clip) time dropped at the start
    int64_t length = 0;  // what remains
    if (!subCns(from, clip.begin, &cut) || !subCns(to, from, &length)) return false;

    const std::vector<DmSpeedPartDesc> parts = sortedParts(clip.speedParts);
    int64_t cutEnd = 0;
    if (!addCns(clip.markIn, cut, &cutEnd)) return false;
    // How far the forward position moved over the stretch cut off.
    int64_t moved = 0;
    if (!subCns(forwardMediaPosition(parts, clip.speed, clip.markIn, cutEnd), clip.markIn, &moved)) return false;
    // The media the rest spans, by the rule that made the mark out.
    int64_t used = length;
    if (parts.empty() && clip.speed != 0.0) {
        const double scaled = static_cast<double>(length) * clip.speed;
        if (!(scaled < kCnsLimit)) return false;
        used = std::llround(scaled);
    }
    // Forward, the position runs up from the mark in; backwards, it runs down
    // from the mark out (markIn + markOut - forward position).
    if (!clip.reverse) {
        if (!addCns(clip.markIn, moved, &out->markIn) || !addCns(out->markIn, used, &out->markOut)) return false;
    } else {
        if (!subCns(clip.markOut, moved, &out->markOut) || !subCns(out->markOut, used, &out->markIn)) return false;
    }
    out->begin = from;
    out->end = to;

    // Clip time t before is t + shift now.
    int64_t shift = 0;
    if (!subCns(out->markIn, clip.markIn, &shift) || !subCns(shift, cut, &shift)) return false;
    for (DmKeyframeDesc& keyframe : out->volumeKeyframes)
        if (!addCns(keyframe.time, shift, &keyframe.time)) return false;
    if (!parts.empty()) {
        // Parts outside the remaining clip time play nothing; the ones across
        // its edges are cut there. Without any left, one part at speed 1
        // keeps the clip timed by its parts (speed 1 between parts), not by
        // its constant speed.
        int64_t last = 0;
        if (!addCns(out->markIn, length, &last)) return false;
        out->speedParts.clear();
        for (const DmSpeedPartDesc& part : parts) {
            DmSpeedPartDesc kept = part;
            if (!addCns(part.begin, shift, &kept.begin) || !addCns(part.end, shift, &kept.end)) return false;
            kept.begin = std::max(kept.begin, out->markIn);
            kept.end = std::min(kept.end, last);
            if (kept.end > kept.begin) out->speedParts.push_back(kept);
        }
        if (out->speedParts.empty()) out->speedParts.push_back({out->markIn, last, 1.0});
    }
    return true;
}

// The clip moved by offset on the timeline; what it plays is unchanged.
bool shiftClip(DmClipDesc* clip, int64_t offset) {
    return addCns(clip->begin, offset, &clip->begin) && addCns(clip->end, offset, &clip->end);
}

// Only [from, from + duration) of the layer, placed at 0.
bool windowLayer(Layer* layer, int64_t from, int64_t duration) {
    int64_t to = 0;
    int64_t back = 0;
    if (!addCns(from, duration, &to) || !subCns(0, from, &back)) return false;
    std::vector<DmClipDesc> kept;
    for (const DmClipDesc& clip : layer->clips) {
        DmClipDesc placed;
        if (clip.begin == clip.end) {
            // A clip of no length stays where it stands inside the window.
            if (clip.begin < from || clip.begin >= to) continue;
            placed = clip;
        } else {
            if (clip.end <= from || clip.begin >= to) continue;
            if (!trimClip(clip, std::max(clip.begin, from), std::min(clip.end, to), &placed)) return false;
        }
        if (!shiftClip(&placed, back)) return false;
        kept.push_back(std::move(placed));
    }
    layer->clips = std::move(kept);
    layer->length = duration;
    return true;
}

// The children of a stack (bottom first) as one layer: at each instant the
// topmost child with an enabled clip there shows it; where none has, the
// bottom child's clip there (a disabled one) stays. Gaps show nothing and a
// clip of no length shows at no instant.
bool overlayLayers(const std::vector<Layer>& layers, Layer* out) {
    out->length = 0;
    out->clips.clear();
    std::vector<int64_t> edges;
    for (const Layer& layer : layers) {
        out->length = std::max(out->length, layer.length);
        for (const DmClipDesc& clip : layer.clips) {
            if (clip.end <= clip.begin) continue;
            edges.push_back(clip.begin);
            edges.push_back(clip.end);
        }
    }
    std::sort(edges.begin(), edges.end());
    edges.erase(std::unique(edges.begin(), edges.end()), edges.end());

    constexpr size_t kNone = static_cast<size_t>(-1);
    struct Piece {
        size_t layer;
        size_t clip;
        int64_t from;
        int64_t to;
    };
    std::vector<Piece> pieces;
    std::vector<size_t> next(layers.size(), 0);
    // The clip of layer l over [at, next edge), or kNone; the instants only
    // grow, so each layer is walked once.
    const auto covering = [&](size_t l, int64_t at) {
        const std::vector<DmClipDesc>& clips = layers[l].clips;
        size_t& k = next[l];
        while (k < clips.size() && clips[k].end <= at) ++k;
        return k < clips.size() && clips[k].begin <= at ? k : kNone;
    };
    for (size_t e = 0; e + 1 < edges.size(); ++e) {
        const int64_t from = edges[e];
        const int64_t to = edges[e + 1];
        size_t shownLayer = kNone;
        size_t shownClip = kNone;
        for (size_t l = layers.size(); l-- > 0;) {
            const size_t k = covering(l, from);
            if (k != kNone && layers[l].clips[k].enabled) {
                shownLayer = l;
                shownClip = k;
                break;
            }
        }
        if (shownLayer == kNone && !layers.empty()) {
            const size_t k = covering(0, from);
            if (k != kNone) {
                shownLayer = 0;
                shownClip = k;
            }
        }
        if (shownLayer == kNone) continue;
        if (!pieces.empty() && pieces.back().layer == shownLayer && pieces.back().clip == shownClip &&
            pieces.back().to == from)
            pieces.back().to = to;
        else
            pieces.push_back({shownLayer, shownClip, from, to});
    }
    for (const Piece& piece : pieces) {
        DmClipDesc clip;
        if (!trimClip(layers[piece.layer].clips[piece.clip], piece.from, piece.to, &clip)) return false;
        out->clips.push_back(std::move(clip));
    }
    return true;
}

bool isClip(std::string_view schema) { return schema == "Clip.1" || schema == "Clip.2"; }
bool isGap(std::string_view schema) { return schema == "Gap.1" || schema == "Filler.1"; }
bool isTrack(std::string_view schema) { return schema == "Track.1" || schema == "Sequence.1"; }
bool isStack(std::string_view schema) { return schema == "Stack.1"; }
bool isTimeline(std::string_view schema) { return schema == "Timeline.1" || schema == "Timeline.2"; }

class DocumentReader {
public:
    explicit DocumentReader(std::string documentPath) : documentPath_(std::move(documentPath)) {}

    const std::string& fault() const { return fault_; }

    // The document's root: a timeline, or a collection whose first timeline is
    // read.
    bool readDocument(const Json& root, DmTimelineDesc* out) {
        const std::string path = "$";
        if (!root.is_object()) return fail(path, "an object");
        if (schemaOf(root) != "SerializableCollection.1") return readTimeline(root, path, out);

        const std::string childrenPath = member(path, "children");
        const Json* children = present(root, "children");
        if (children != nullptr && !children->is_array()) return fail(childrenPath, "an array");
        size_t first = 0;
        size_t timelines = 0;
        if (children != nullptr) {
            for (size_t i = 0; i < children->size(); ++i) {
                if (!isTimeline(schemaOf((*children)[i]))) continue;
                if (timelines == 0) first = i;
                ++timelines;
            }
        }
        if (timelines == 0) return fail(childrenPath, "a Timeline.1 object");
        const Json& timeline = (*children)[first];
        const std::string timelinePath = element(childrenPath, first);
        if (timelines > 1)
            warn(path, "SerializableCollection.1 holds " + std::to_string(timelines) + " timelines; only the first, " +
                           timelinePath + " (" + quotedForWarning(nameOf(timeline)) + "), is read");
        return readTimeline(timeline, timelinePath, out);
    }

    std::vector<std::string> takeWarnings() { return std::move(warnings_); }

private:
    std::string documentPath_;
    std::string fault_;
    std::vector<std::string> warnings_;

    bool fail(const std::string& path, std::string_view expected) {
        fault_ = path + ": expected " + std::string(expected);
        return false;
    }

    void warn(const std::string& path, const std::string& text) { warnings_.push_back(path + ": " + text); }

    bool schema(const Json& object, const std::string& path, std::string_view name) {
        const Json* value = find(object, "OTIO_SCHEMA");
        if (value == nullptr || !value->is_string() || value->get_ref<const std::string&>() != name)
            return fail(member(path, "OTIO_SCHEMA"), quoted(name));
        return true;
    }

    // The OTIO_SCHEMA of an object, empty when it has none.
    static std::string schemaOf(const Json& object) {
        const Json* value = find(object, "OTIO_SCHEMA");
        return value != nullptr && value->is_string() ? value->get<std::string>() : std::string();
    }

    // The name of an object for a warning, empty when it has none.
    static std::string nameOf(const Json& object) {
        const Json* value = find(object, "name");
        return value != nullptr && value->is_string() ? value->get<std::string>() : std::string();
    }

    // The OTIO_SCHEMA of an object that must have one.
    bool requiredSchema(const Json& object, const std::string& path, std::string* out) {
        const Json* value = find(object, "OTIO_SCHEMA");
        if (value == nullptr || !value->is_string()) return fail(member(path, "OTIO_SCHEMA"), "a string");
        *out = value->get<std::string>();
        return true;
    }

    // ----- OpenTimelineIO values: null or absent leaves the default.

    bool optionalString(const Json& object, const std::string& path, std::string_view key, std::string* out) {
        const Json* value = present(object, key);
        if (value == nullptr) return true;
        if (!value->is_string()) return fail(member(path, key), "a string");
        *out = value->get<std::string>();
        // The data model hands names out as C strings: a NUL would cut them
        // short, and two clips could then answer to one name.
        for (size_t at = out->find('\0'); at != std::string::npos; at = out->find('\0', at + 3))
            out->replace(at, 1, "\xEF\xBF\xBD");
        return true;
    }

    bool optionalBool(const Json& object, const std::string& path, std::string_view key, bool* out) {
        const Json* value = present(object, key);
        if (value == nullptr) return true;
        if (!value->is_boolean()) return fail(member(path, key), "a boolean");
        *out = value->get<bool>();
        return true;
    }

    bool number(const Json& object, const std::string& path, std::string_view key, double* out) {
        const Json* value = find(object, key);
        if (value == nullptr || !value->is_number()) return fail(member(path, key), "a number");
        *out = value->get<double>();
        return true;
    }

    // RationalTime.1, in cns. With unknown given, a value that is not a
    // finite time (Inf, NaN) sets *unknown instead of failing.
    bool time(const Json& value, const std::string& path, int64_t* cns, double* seconds = nullptr,
              bool* unknown = nullptr) {
        if (!value.is_object()) return fail(path, "a RationalTime.1 object");
        if (!schema(value, path, "RationalTime.1")) return false;
        double amount = 0.0;
        double rate = 0.0;
        if (!number(value, path, "value", &amount)) return false;
        if (!number(value, path, "rate", &rate)) return false;
        if (!(rate > 0.0) || !std::isfinite(rate)) return fail(member(path, "rate"), "a rate above 0");
        const double secs = amount / rate;
        if (unknown != nullptr && !std::isfinite(secs)) {
            *unknown = true;
            *cns = 0;
            if (seconds != nullptr) *seconds = 0.0;
            return true;
        }
        if (!toCns(secs, cns)) return fail(path, kTimeRangeText);
        if (seconds != nullptr) *seconds = secs;
        return true;
    }

    // TimeRange.1, with a duration of 0 or more. An available range (lenient)
    // may leave its duration unknown.
    bool range(const Json& value, const std::string& path, Range* out, bool lenient = false) {
        if (!value.is_object()) return fail(path, "a TimeRange.1 object");
        if (!schema(value, path, "TimeRange.1")) return false;
        const std::string startPath = member(path, "start_time");
        const std::string durationPath = member(path, "duration");
        const Json* start = find(value, "start_time");
        const Json* duration = find(value, "duration");
        if (start == nullptr) return fail(startPath, "a RationalTime.1 object");
        if (!time(*start, startPath, &out->start)) return false;
        if (duration == nullptr) return fail(durationPath, "a RationalTime.1 object");
        double seconds = 0.0;
        bool unknown = false;
        if (!time(*duration, durationPath, &out->duration, &seconds, lenient ? &unknown : nullptr)) return false;
        if (seconds < 0.0) return fail(durationPath, "a duration of 0 or more");
        out->durationKnown = !unknown;
        out->durationPath = durationPath;
        return true;
    }

    // The duration of a range that is used.
    bool knownDuration(const Range& range, int64_t* out) {
        if (!range.durationKnown) return fail(range.durationPath, kTimeRangeText);
        *out = range.duration;
        return true;
    }

    // The "miravel" object of an item's metadata, or null when there is none.
    bool miravelMetadata(const Json& item, const std::string& path, const Json** out, std::string* outPath) {
        *out = nullptr;
        const Json* metadata = present(item, "metadata");
        if (metadata == nullptr) return true;
        const std::string metadataPath = member(path, "metadata");
        if (!metadata->is_object()) return fail(metadataPath, "an object");
        const Json* miravel = find(*metadata, "miravel");
        if (miravel == nullptr) return true;
        *outPath = member(metadataPath, "miravel");
        if (!miravel->is_object()) return fail(*outPath, "an object");
        *out = miravel;
        return true;
    }

    // ----- "miravel" values: absent leaves the value, anything else must
    // have the right type and be finite.

    bool miravelBool(const Json& object, const std::string& path, std::string_view key, bool* out,
                     bool* seen = nullptr) {
        const Json* value = find(object, key);
        if (value == nullptr) return true;
        if (!value->is_boolean()) return fail(member(path, key), "a boolean");
        *out = value->get<bool>();
        if (seen != nullptr) *seen = true;
        return true;
    }

    bool miravelNumber(const Json& object, const std::string& path, std::string_view key, double* out,
                       double low = -std::numeric_limits<double>::infinity(),
                       double high = std::numeric_limits<double>::infinity(), const char* rangeText = nullptr) {
        const Json* value = find(object, key);
        if (value == nullptr) return true;
        const char* expected = rangeText != nullptr ? rangeText : "a number";
        if (!value->is_number()) return fail(member(path, key), expected);
        const double number = value->get<double>();
        if (!std::isfinite(number) || !(number >= low && number <= high)) return fail(member(path, key), expected);
        *out = number;
        return true;
    }

    bool miravelStreamId(const Json& object, const std::string& path, int32_t* out) {
        const Json* value = find(object, "stream_id");
        if (value == nullptr) return true;
        constexpr const char* expected = "an integer from -1 to 2147483647";
        const std::string valuePath = member(path, "stream_id");
        int64_t id = 0;
        if (value->is_number_unsigned()) {
            const uint64_t raw = value->get<uint64_t>();
            if (raw > static_cast<uint64_t>(std::numeric_limits<int32_t>::max())) return fail(valuePath, expected);
            id = static_cast<int64_t>(raw);
        } else if (value->is_number_integer()) {
            id = value->get<int64_t>();
        } else if (value->is_number_float()) {
            const double raw = value->get<double>();
            if (!(raw >= -1.0 && raw <= 2147483647.0) || std::trunc(raw) != raw) return fail(valuePath, expected);
            id = static_cast<int64_t>(raw);
        } else {
            return fail(valuePath, expected);
        }
        if (id < -1 || id > std::numeric_limits<int32_t>::max()) return fail(valuePath, expected);
        *out = static_cast<int32_t>(id);
        return true;
    }

    // Seconds from the clip's start on the timeline, as clip time.
    bool clipTime(double seconds, int64_t markIn, const std::string& path, int64_t* out) {
        int64_t offset = 0;
        if (!toCns(seconds, &offset) || !addCns(markIn, offset, out)) return fail(path, kTimeRangeText);
        return true;
    }

    // ----- The timeline and its tracks.

    bool readTimeline(const Json& timeline, const std::string& path, DmTimelineDesc* out) {
        if (!timeline.is_object()) return fail(path, "an object");
        if (!isTimeline(schemaOf(timeline))) return schema(timeline, path, "Timeline.1");
        if (!optionalString(timeline, path, "name", &out->name)) return false;
        // The timeline's start timecode: checked, but clip ranges count from 0.
        if (const Json* start = present(timeline, "global_start_time")) {
            int64_t ignored = 0;
            if (!time(*start, member(path, "global_start_time"), &ignored)) return false;
        }
        const std::string stackPath = member(path, "tracks");
        const Json* stack = find(timeline, "tracks");
        if (stack == nullptr || !stack->is_object()) return fail(stackPath, "a Stack.1 object");
        if (!schema(*stack, stackPath, "Stack.1")) return false;

        // What the stack itself says applies to every track.
        bool enabled = true;
        if (!optionalBool(*stack, stackPath, "enabled", &enabled)) return false;
        if (!compositionEffects(*stack, stackPath, "Stack.1")) return false;
        Range window;
        const Json* sourceRange = present(*stack, "source_range");
        if (sourceRange != nullptr && !range(*sourceRange, member(stackPath, "source_range"), &window)) return false;

        const std::string childrenPath = member(stackPath, "children");
        const Json* children = present(*stack, "children");
        if (children == nullptr) return true;
        if (!children->is_array()) return fail(childrenPath, "an array");
        for (size_t i = 0; i < children->size(); ++i) {
            DmTrackDesc track;
            bool kept = true;
            const std::string trackPath = element(childrenPath, i);
            Layer layer;
            if (!readTrack((*children)[i], trackPath, &track, &layer, &kept)) return false;
            if (!kept) continue;
            if (sourceRange != nullptr && !windowLayer(&layer, window.start, window.duration))
                return fail(member(stackPath, "source_range"), kTimeRangeText);
            if (!enabled) disableClips(&layer);
            track.clips = std::move(layer.clips);
            out->tracks.push_back(std::move(track));
        }
        return true;
    }

    // A track of the timeline's stack, its items laid out in *layer. *kept is
    // false for a track of another kind than video or audio, which is left out.
    bool readTrack(const Json& value, const std::string& path, DmTrackDesc* track, Layer* layer, bool* kept) {
        if (!value.is_object()) return fail(path, "a Track.1 object");
        const std::string trackSchema = schemaOf(value);
        if (!isTrack(trackSchema)) return schema(value, path, "Track.1");
        if (!optionalString(value, path, "name", &track->name)) return false;
        const std::string kindPath = member(path, "kind");
        const Json* kind = find(value, "kind");
        if (kind == nullptr || !kind->is_string()) return fail(kindPath, "\"Video\" or \"Audio\"");
        const std::string& kindName = kind->get_ref<const std::string&>();
        if (kindName == "Video") {
            track->kind = DmTrackVideo;
        } else if (kindName == "Audio") {
            track->kind = DmTrackAudio;
        } else {
            warn(path, "track kind " + quotedForWarning(kindName) + " (" + quotedForWarning(track->name) +
                           ") is neither \"Video\" nor \"Audio\"; the track is left out");
            *kept = false;
            return true;
        }

        bool enabled = true;
        if (!optionalBool(value, path, "enabled", &enabled)) return false;
        if (!enabled) {
            if (track->kind == DmTrackAudio)
                track->mute = true;
            else
                track->visible = false;
        }
        const Json* miravel = nullptr;
        std::string miravelPath;
        if (!miravelMetadata(value, path, &miravel, &miravelPath)) return false;
        if (miravel != nullptr) {
            if (!miravelBool(*miravel, miravelPath, "mute", &track->mute)) return false;
            if (!miravelBool(*miravel, miravelPath, "visible", &track->visible)) return false;
            if (!miravelBool(*miravel, miravelPath, "solo", &track->solo)) return false;
        }
        if (!compositionEffects(value, path, trackSchema)) return false;
        if (!readSequence(value, path, 1, layer)) return false;
        if (const Json* sourceRange = present(value, "source_range")) {
            const std::string rangePath = member(path, "source_range");
            Range window;
            if (!range(*sourceRange, rangePath, &window)) return false;
            if (!windowLayer(layer, window.start, window.duration)) return fail(rangePath, kTimeRangeText);
        }
        return true;
    }

    // ----- Compositions and their items.

    static void disableClips(Layer* layer) {
        for (DmClipDesc& clip : layer->clips) {
            clip.enabled = false;
            clip.mute = true;
        }
    }

    // The children of a track, end to end.
    bool readSequence(const Json& composition, const std::string& path, int depth, Layer* out) {
        out->length = 0;
        out->clips.clear();
        const std::string childrenPath = member(path, "children");
        const Json* children = present(composition, "children");
        if (children == nullptr) return true;
        if (!children->is_array()) return fail(childrenPath, "an array");
        int64_t position = 0;
        for (size_t i = 0; i < children->size(); ++i) {
            const std::string itemPath = element(childrenPath, i);
            Layer item;
            bool takesRoom = true;
            if (!readItem((*children)[i], itemPath, depth, &item, &takesRoom)) return false;
            if (!takesRoom) continue;
            for (DmClipDesc& clip : item.clips) {
                if (!shiftClip(&clip, position)) return fail(itemPath, kTimeRangeText);
                out->clips.push_back(std::move(clip));
            }
            if (!addCns(position, item.length, &position)) return fail(itemPath, kTimeRangeText);
        }
        out->length = position;
        return true;
    }

    // The children of a stack, each from 0, the last one on top.
    bool readStack(const Json& composition, const std::string& path, int depth, Layer* out) {
        const std::string childrenPath = member(path, "children");
        const Json* children = present(composition, "children");
        std::vector<Layer> layers;
        if (children != nullptr) {
            if (!children->is_array()) return fail(childrenPath, "an array");
            for (size_t i = 0; i < children->size(); ++i) {
                Layer item;
                bool takesRoom = true;
                if (!readItem((*children)[i], element(childrenPath, i), depth, &item, &takesRoom)) return false;
                if (takesRoom) layers.push_back(std::move(item));
            }
        }
        if (!overlayLayers(layers, out)) return fail(path, kTimeRangeText);
        return true;
    }

    // One item of a composition as a layer from 0. *takesRoom is false for a
    // transition, which overlaps its neighbours and takes no room.
    bool readItem(const Json& item, const std::string& path, int depth, Layer* out, bool* takesRoom) {
        if (!item.is_object()) return fail(path, "an item object");
        std::string kind;
        if (!requiredSchema(item, path, &kind)) return false;
        if (kind == "Transition.1") {
            *takesRoom = false;
            return true;
        }
        if (isClip(kind)) {
            DmClipDesc clip;
            int64_t position = 0;
            if (!readClip(item, path, kind == "Clip.2", &position, &clip)) return false;
            out->length = position;
            out->clips.push_back(std::move(clip));
            return true;
        }
        if (isGap(kind)) {
            const std::string rangePath = member(path, "source_range");
            const Json* gapRange = find(item, "source_range");
            if (gapRange == nullptr) return fail(rangePath, "a TimeRange.1 object");
            Range gap;
            if (!range(*gapRange, rangePath, &gap)) return false;
            out->length = gap.duration;
            return true;
        }
        if (isTrack(kind) || isStack(kind)) return readComposition(item, path, kind, depth + 1, out);

        // Something Miravel does not know: room of its duration, shown as a gap.
        Range itemRange;
        if (const Json* sourceRange = present(item, "source_range")) {
            if (!range(*sourceRange, member(path, "source_range"), &itemRange)) return false;
        } else if (const Json* available = present(item, "available_range")) {
            if (!range(*available, member(path, "available_range"), &itemRange, true)) return false;
        } else {
            return fail(member(path, "source_range"), "a source_range or an available_range");
        }
        if (!knownDuration(itemRange, &out->length)) return false;
        warn(path, "unknown schema " + quotedForWarning(kind) + " (" + quotedForWarning(nameOf(item)) +
                       ") taken as a gap of " + secondsText(out->length) + " s");
        return true;
    }

    // A track or stack inside a track: its items flattened, then only its
    // source_range of them (all of them without one).
    bool readComposition(const Json& item, const std::string& path, const std::string& kind, int depth, Layer* out) {
        if (depth > kMaxNesting)
            return fail(path, "compositions nested at most " + std::to_string(kMaxNesting) + " deep");
        bool enabled = true;
        if (!optionalBool(item, path, "enabled", &enabled)) return false;
        if (!compositionEffects(item, path, kind)) return false;
        if (isStack(kind)) {
            if (!readStack(item, path, depth, out)) return false;
        } else {
            if (!readSequence(item, path, depth, out)) return false;
        }
        if (const Json* sourceRange = present(item, "source_range")) {
            const std::string rangePath = member(path, "source_range");
            Range window;
            if (!range(*sourceRange, rangePath, &window)) return false;
            if (!windowLayer(out, window.start, window.duration)) return fail(rangePath, kTimeRangeText);
        }
        if (!enabled) disableClips(out);
        return true;
    }

    // ----- Effects.

    // The effects of an item, checked; *scalar is the product of the time
    // scalars of the enabled time effects (FreezeFrame: 0), *timeEffects
    // whether there is any.
    bool readEffects(const Json& item, const std::string& path, double* scalar, bool* timeEffects) {
        *scalar = 1.0;
        *timeEffects = false;
        const std::string effectsPath = member(path, "effects");
        const Json* effects = present(item, "effects");
        if (effects == nullptr) return true;
        if (!effects->is_array()) return fail(effectsPath, "an array");
        for (size_t i = 0; i < effects->size(); ++i) {
            const Json& effect = (*effects)[i];
            const std::string effectPath = element(effectsPath, i);
            if (!effect.is_object()) return fail(effectPath, "an effect object");
            std::string effectKind;
            if (!requiredSchema(effect, effectPath, &effectKind)) return false;
            if (effectKind != "FreezeFrame.1" && effectKind != "LinearTimeWarp.1") continue;  // no bearing on time
            bool enabled = true;
            if (!optionalBool(effect, effectPath, "enabled", &enabled)) return false;
            if (!enabled) continue;
            *timeEffects = true;
            if (effectKind == "FreezeFrame.1") {
                *scalar *= 0.0;
            } else {
                double factor = 0.0;
                if (!number(effect, effectPath, "time_scalar", &factor)) return false;
                *scalar *= factor;
                if (!std::isfinite(*scalar))
                    return fail(member(effectPath, "time_scalar"), "time scalars with a finite product");
            }
        }
        return true;
    }

    // Time effects of a composition would change the speed of everything in
    // it; the clips keep their own speeds instead, with a warning.
    bool compositionEffects(const Json& composition, const std::string& path, const std::string& kind) {
        double scalar = 1.0;
        bool timeEffects = false;
        if (!readEffects(composition, path, &scalar, &timeEffects)) return false;
        if (timeEffects)
            warn(path, "time effects of " + kind + " (" + quotedForWarning(nameOf(composition)) + ") are not applied");
        return true;
    }

    // ----- Clips and media references.

    bool readReference(const Json& value, const std::string& path, Reference* out) {
        if (!value.is_object()) return fail(path, "a media reference");
        std::string kind;
        if (!requiredSchema(value, path, &kind)) return false;
        if (kind == "ExternalReference.1") {
            const std::string urlPath = member(path, "target_url");
            const Json* url = find(value, "target_url");
            if (url == nullptr || !url->is_string()) return fail(urlPath, "a string");
            if (!mediaPath(url->get_ref<const std::string&>(), &out->mediaPath))
                return fail(urlPath, "a local file URL or a path");
        } else if (kind != "MissingReference.1" && kind != "GeneratorReference.1" &&
                   kind != "ImageSequenceReference.1") {
            warn(path, "unknown media reference schema " + quotedForWarning(kind) + " taken as missing media");
        }
        // Generated pictures and image sequences have no file to decode: the
        // clip's media is missing, but the range still places its mark in.
        if (const Json* available = present(value, "available_range")) {
            if (!range(*available, member(path, "available_range"), &out->available, true)) return false;
            out->hasAvailable = true;
        }
        return true;
    }

    // The media reference of a clip; none (null, absent, or a key of Clip.2
    // that names no reference) is missing media.
    bool readClipReference(const Json& item, const std::string& path, bool secondForm, Reference* out) {
        if (!secondForm) {
            const Json* reference = present(item, "media_reference");
            return reference == nullptr || readReference(*reference, member(path, "media_reference"), out);
        }
        std::string key = "DEFAULT_MEDIA";
        if (!optionalString(item, path, "active_media_reference_key", &key)) return false;
        const std::string referencesPath = member(path, "media_references");
        const Json* references = present(item, "media_references");
        if (references == nullptr) return true;
        if (!references->is_object()) return fail(referencesPath, "an object");
        const Json* chosen = present(*references, key);
        return chosen == nullptr || readReference(*chosen, member(referencesPath, key), out);
    }

    bool readClip(const Json& item, const std::string& path, bool secondForm, int64_t* position, DmClipDesc* clip) {
        if (!optionalString(item, path, "name", &clip->name)) return false;
        bool enabled = true;
        if (!optionalBool(item, path, "enabled", &enabled)) return false;
        clip->enabled = enabled;
        clip->mute = !enabled;

        Reference reference;
        if (!readClipReference(item, path, secondForm, &reference)) return false;
        clip->mediaPath = reference.mediaPath;

        // The source range, in the media's time, and the range on the track.
        const std::string sourcePath = member(path, "source_range");
        Range source;
        if (const Json* sourceRange = present(item, "source_range")) {
            if (!range(*sourceRange, sourcePath, &source)) return false;
        } else if (reference.hasAvailable) {
            source = reference.available;
            if (!knownDuration(source, &source.duration)) return false;
        } else {
            return fail(sourcePath, "a source_range or an available_range");
        }
        const int64_t availableStart = reference.hasAvailable ? reference.available.start : 0;
        if (__builtin_sub_overflow(source.start, availableStart, &clip->markIn))
            return fail(member(sourcePath, "start_time"), kTimeRangeText);
        clip->begin = *position;
        if (!addCns(*position, source.duration, &clip->end))
            return fail(member(sourcePath, "duration"), kTimeRangeText);
        *position = clip->end;

        // Time effects: the product of the time scalars.
        double k = 1.0;
        bool timeEffects = false;
        if (!readEffects(item, path, &k, &timeEffects)) return false;
        clip->speed = std::fabs(k);
        clip->reverse = k < 0.0;

        // What OpenTimelineIO has no field for.
        const Json* miravel = nullptr;
        std::string miravelPath;
        if (!miravelMetadata(item, path, &miravel, &miravelPath)) return false;
        if (miravel != nullptr && !readClipMiravel(*miravel, miravelPath, clip)) return false;

        // The mark out.
        if (!clip->speedParts.empty() || clip->speed == 0.0) {
            if (!addCns(clip->markIn, source.duration, &clip->markOut))
                return fail(member(sourcePath, "duration"), kTimeRangeText);
        } else {
            const double scaled = static_cast<double>(source.duration) * clip->speed;
            if (!std::isfinite(scaled) || scaled >= kCnsLimit ||
                !addCns(clip->markIn, std::llround(scaled), &clip->markOut))
                return fail(member(sourcePath, "duration"), kTimeRangeText);
        }
        return true;
    }

    static int hexDigit(char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    }

    static bool startsWithNoCase(std::string_view text, std::string_view prefix) {
        if (text.size() < prefix.size()) return false;
        for (size_t i = 0; i < prefix.size(); ++i) {
            char c = text[i];
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
            if (c != prefix[i]) return false;
        }
        return true;
    }

    // "scheme://" with a scheme of two characters or more (one letter and a
    // colon is a drive, not a scheme).
    static bool hasScheme(std::string_view text) {
        const size_t colon = text.find("://");
        if (colon == std::string_view::npos || colon < 2) return false;
        for (size_t i = 0; i < colon; ++i) {
            const char c = text[i];
            const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
            const bool other = (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
            if (!letter && !(other && i > 0)) return false;
        }
        return true;
    }

    // A target_url as a file path: file:///p, file://localhost/p and file:/p
    // are percent-decoded; other paths are taken as they are, relative ones
    // against the document's folder.
    bool mediaPath(std::string_view url, std::string* out) const {
        if (url.empty() || url.find('\0') != std::string_view::npos) return false;
        if (startsWithNoCase(url, "file:")) {
            std::string_view rest = url.substr(5);
            if (rest.substr(0, 2) == "//") {
                rest.remove_prefix(2);
                if (startsWithNoCase(rest, "localhost/")) rest.remove_prefix(9);
                if (rest.empty() || rest.front() != '/') return false;  // another machine
            } else if (rest.empty() || rest.front() != '/') {
                return false;
            }
            const size_t end = rest.find_first_of("?#");
            if (end != std::string_view::npos) rest = rest.substr(0, end);
            std::string decoded;
            decoded.reserve(rest.size());
            for (size_t i = 0; i < rest.size(); ++i) {
                if (rest[i] != '%') {
                    decoded += rest[i];
                    continue;
                }
                if (i + 2 >= rest.size()) return false;
                const int high = hexDigit(rest[i + 1]);
                const int low = hexDigit(rest[i + 2]);
                if (high < 0 || low < 0 || (high == 0 && low == 0)) return false;
                decoded += static_cast<char>(high * 16 + low);
                i += 2;
            }
            *out = std::move(decoded);
            return true;
        }
        if (hasScheme(url)) return false;
        const std::filesystem::path given{std::string(url)};
        if (given.is_absolute()) {
            *out = std::string(url);
            return true;
        }
        const std::filesystem::path folder = std::filesystem::path(documentPath_).parent_path();
        *out = (folder / given).lexically_normal().string();
        return true;
    }

    bool readClipMiravel(const Json& miravel, const std::string& path, DmClipDesc* clip) {
        if (!miravelStreamId(miravel, path, &clip->streamId)) return false;
        if (!miravelNumber(miravel, path, "volume_db", &clip->volumeDb)) return false;
        if (!miravelNumber(miravel, path, "volume_gain_db", &clip->volumeGainDb)) return false;
        if (const Json* loudness = find(miravel, "loudness")) {
            const std::string loudnessPath = member(path, "loudness");
            if (!loudness->is_object()) return fail(loudnessPath, "an object");
            if (!miravelBool(*loudness, loudnessPath, "enabled", &clip->loudnessEnabled)) return false;
            if (!miravelNumber(*loudness, loudnessPath, "gain", &clip->loudnessGain, 0.0,
                               std::numeric_limits<double>::infinity(), "a number of 0 or more"))
                return false;
        }
        if (!miravelBool(miravel, path, "mute", &clip->mute)) return false;

        if (const Json* keyframes = find(miravel, "volume_keyframes")) {
            const std::string keyframesPath = member(path, "volume_keyframes");
            if (!keyframes->is_array()) return fail(keyframesPath, "an array");
            for (size_t i = 0; i < keyframes->size(); ++i) {
                const Json& pair = (*keyframes)[i];
                const std::string pairPath = element(keyframesPath, i);
                if (!pair.is_array() || pair.size() != 2) return fail(pairPath, "a [seconds, dB] pair");
                if (!pair[0].is_number()) return fail(element(pairPath, 0), "a number");
                if (!pair[1].is_number() || !std::isfinite(pair[1].get<double>()))
                    return fail(element(pairPath, 1), "a number");
                DmKeyframeDesc keyframe;
                if (!clipTime(pair[0].get<double>(), clip->markIn, element(pairPath, 0), &keyframe.time)) return false;
                keyframe.db = pair[1].get<double>();
                clip->volumeKeyframes.push_back(keyframe);
            }
        }

        if (const Json* ducking = find(miravel, "ducking")) {
            const std::string duckingPath = member(path, "ducking");
            if (!ducking->is_object()) return fail(duckingPath, "an object");
            DmDuckingDesc desc;
            desc.present = true;
            if (!miravelBool(*ducking, duckingPath, "enabled", &desc.enabled)) return false;
            if (!miravelNumber(*ducking, duckingPath, "depth", &desc.depth, 0.0, 1.0, "a number from 0 to 1"))
                return false;
            if (!miravelNumber(*ducking, duckingPath, "fade", &desc.fade, 0.0, std::numeric_limits<double>::infinity(),
                               "a number of 0 or more"))
                return false;
            if (!miravelNumber(*ducking, duckingPath, "fade_ratio", &desc.fadeRatio, 0.0, 1.0, "a number from 0 to 1"))
                return false;
            clip->ducking = desc;
        }

        bool reverse = clip->reverse;
        if (!miravelBool(miravel, path, "reverse", &reverse)) return false;
        clip->reverse = reverse;

        if (const Json* parts = find(miravel, "speed_parts")) {
            const std::string partsPath = member(path, "speed_parts");
            if (!parts->is_array()) return fail(partsPath, "an array");
            for (size_t i = 0; i < parts->size(); ++i) {
                const Json& part = (*parts)[i];
                const std::string partPath = element(partsPath, i);
                if (!part.is_object()) return fail(partPath, "an object");
                double begin = 0.0;
                double end = 0.0;
                double speed = 1.0;
                if (!number(part, partPath, "begin", &begin)) return false;
                if (!number(part, partPath, "end", &end)) return false;
                if (!number(part, partPath, "speed", &speed)) return false;
                if (!(speed >= 0.0) || !std::isfinite(speed))
                    return fail(member(partPath, "speed"), "a number of 0 or more");
                DmSpeedPartDesc desc;
                desc.speed = speed;
                if (!clipTime(begin, clip->markIn, member(partPath, "begin"), &desc.begin)) return false;
                if (!clipTime(end, clip->markIn, member(partPath, "end"), &desc.end)) return false;
                if (desc.end < desc.begin) return fail(member(partPath, "end"), "a time not before begin");
                clip->speedParts.push_back(desc);
            }
        }
        return true;
    }
};

int32_t failWith(std::string* error, std::string text) {
    if (error != nullptr) {
        try {
            *error = std::move(text);
        } catch (...) {
        }
    }
    return kResultFailure;
}

}  // namespace

int32_t parseTimelineDocument(const char* path, DmTimelineDesc* desc, std::string* error) {
    const std::string shown = path != nullptr ? path : "(null)";
    try {
        if (path == nullptr) return failWith(error, shown + ": cannot open: " + std::strerror(EINVAL));
        if (desc == nullptr) return failWith(error, shown + ": no description to fill");
        std::string text;
        int failure = 0;
        if (!readWholeFile(path, &text, &failure))
            return failWith(error, shown + ": cannot open: " + std::strerror(failure));

        TreeBuilder builder(replaceNonFiniteLiterals(&text));
        Json::sax_parse(text, &builder);
        if (builder.failed)
            return failWith(
                error, shown + ": invalid JSON at byte " + std::to_string(builder.failedAt) + ": " + builder.message);
        text.clear();
        text.shrink_to_fit();

        DocumentReader reader(shown);
        DmTimelineDesc result;
        if (!reader.readDocument(builder.root, &result)) return failWith(error, shown + ": " + reader.fault());
        for (std::string& warning : reader.takeWarnings()) {
            warning.insert(0, shown + ": ");
            ZOR_LOG(IBsLogger::Warning, "ZOR::parseTimelineDocument", "%s", warning.c_str());
            result.warnings.push_back(std::move(warning));
        }
        *desc = std::move(result);
        if (error != nullptr) error->clear();
        return 0;
    } catch (const std::exception& failure) {
        return failWith(error, shown + ": cannot read: " + failure.what());
    } catch (...) {
        return failWith(error, shown + ": cannot read: unknown failure");
    }
}

}  // namespace ZOR
