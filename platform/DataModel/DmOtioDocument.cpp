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
// Times are RationalTime values converted as llround(value / rate x 10^7)
// cns each; everything derived from them is computed in cns.
#include <cerrno>
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

#include "DataModel/DmTime.h"
#include "DataModel/DmTimeline.h"

namespace ZOR {
namespace {

using Json = nlohmann::json;

constexpr int32_t kDocumentError = 1001;

// 2^63: a time in cns must stay below this in magnitude.
constexpr double kCnsLimit = 9223372036854775808.0;
constexpr const char* kTimeRangeText = "a time between -922337203685 and 922337203685 seconds";

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

// Builds the document tree and keeps where parsing stopped, with the parser's
// message, instead of throwing it away with the exception.
class TreeBuilder final : public nlohmann::json_sax<Json> {
public:
    Json root;
    bool failed = false;
    size_t failedAt = 0;
    std::string message;

    bool null() override { return add(Json(nullptr)); }
    bool boolean(bool value) override { return add(Json(value)); }
    bool number_integer(number_integer_t value) override { return add(Json(value)); }
    bool number_unsigned(number_unsigned_t value) override { return add(Json(value)); }
    bool number_float(number_float_t value, const string_t& /*text*/) override { return add(Json(value)); }
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

std::string element(const std::string& path, size_t index) {
    return path + "[" + std::to_string(index) + "]";
}

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

bool addCns(int64_t a, int64_t b, int64_t* sum) {
    return !__builtin_add_overflow(a, b, sum);
}

bool toCns(double seconds, int64_t* cns) {
    const double scaled = seconds * static_cast<double>(kCnsPerSecond);
    if (!std::isfinite(scaled) || std::fabs(scaled) >= kCnsLimit) return false;
    *cns = std::llround(scaled);
    return true;
}

struct Range {
    int64_t start = 0;
    int64_t duration = 0;
};

// A media reference, read.
struct Reference {
    std::string mediaPath;
    bool hasAvailable = false;
    Range available;
};

class DocumentReader {
public:
    explicit DocumentReader(std::string documentPath) : documentPath_(std::move(documentPath)) {}

    const std::string& fault() const { return fault_; }

    bool readTimeline(const Json& root, DmTimelineDesc* out) {
        const std::string path = "$";
        if (!root.is_object()) return fail(path, "an object");
        if (!schema(root, path, "Timeline.1")) return false;
        if (!optionalString(root, path, "name", &out->name)) return false;
        // The timeline's start timecode: checked, but clip ranges count from 0.
        if (const Json* start = present(root, "global_start_time")) {
            int64_t ignored = 0;
            if (!time(*start, member(path, "global_start_time"), &ignored)) return false;
        }
        const std::string stackPath = member(path, "tracks");
        const Json* stack = find(root, "tracks");
        if (stack == nullptr || !stack->is_object()) return fail(stackPath, "a Stack.1 object");
        if (!schema(*stack, stackPath, "Stack.1")) return false;
        const std::string childrenPath = member(stackPath, "children");
        const Json* children = present(*stack, "children");
        if (children == nullptr) return true;
        if (!children->is_array()) return fail(childrenPath, "an array");
        for (size_t i = 0; i < children->size(); ++i) {
            DmTrackDesc track;
            if (!readTrack((*children)[i], element(childrenPath, i), &track)) return false;
            out->tracks.push_back(std::move(track));
        }
        return true;
    }

private:
    std::string documentPath_;
    std::string fault_;

    bool fail(const std::string& path, std::string_view expected) {
        fault_ = path + ": expected " + std::string(expected);
        return false;
    }

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

    // ----- OpenTimelineIO values: null or absent leaves the default.

    bool optionalString(const Json& object, const std::string& path, std::string_view key, std::string* out) {
        const Json* value = present(object, key);
        if (value == nullptr) return true;
        if (!value->is_string()) return fail(member(path, key), "a string");
        *out = value->get<std::string>();
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

    // RationalTime.1, in cns.
    bool time(const Json& value, const std::string& path, int64_t* cns, double* seconds = nullptr) {
        if (!value.is_object()) return fail(path, "a RationalTime.1 object");
        if (!schema(value, path, "RationalTime.1")) return false;
        double amount = 0.0;
        double rate = 0.0;
        if (!number(value, path, "value", &amount)) return false;
        if (!number(value, path, "rate", &rate)) return false;
        if (!(rate > 0.0)) return fail(member(path, "rate"), "a rate above 0");
        const double secs = amount / rate;
        if (!toCns(secs, cns)) return fail(path, kTimeRangeText);
        if (seconds != nullptr) *seconds = secs;
        return true;
    }

    // TimeRange.1, with a duration of 0 or more.
    bool range(const Json& value, const std::string& path, Range* out) {
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
        if (!time(*duration, durationPath, &out->duration, &seconds)) return false;
        if (seconds < 0.0) return fail(durationPath, "a duration of 0 or more");
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
    // have the right type.

    bool miravelBool(const Json& object, const std::string& path, std::string_view key, bool* out, bool* seen = nullptr) {
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
        if (!(number >= low && number <= high)) return fail(member(path, key), expected);
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

    // ----- Tracks and their items.

    bool readTrack(const Json& value, const std::string& path, DmTrackDesc* track) {
        if (!value.is_object()) return fail(path, "a Track.1 object");
        if (!schema(value, path, "Track.1")) return false;
        if (!optionalString(value, path, "name", &track->name)) return false;
        const std::string kindPath = member(path, "kind");
        const Json* kind = find(value, "kind");
        if (kind != nullptr && kind->is_string() && kind->get_ref<const std::string&>() == "Video")
            track->kind = DmTrackVideo;
        else if (kind != nullptr && kind->is_string() && kind->get_ref<const std::string&>() == "Audio")
            track->kind = DmTrackAudio;
        else
            return fail(kindPath, "\"Video\" or \"Audio\"");

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

        const std::string childrenPath = member(path, "children");
        const Json* children = present(value, "children");
        if (children == nullptr) return true;
        if (!children->is_array()) return fail(childrenPath, "an array");
        int64_t position = 0;
        for (size_t i = 0; i < children->size(); ++i) {
            const Json& item = (*children)[i];
            const std::string itemPath = element(childrenPath, i);
            if (!item.is_object()) return fail(itemPath, "a Clip, Gap or Transition object");
            const std::string kindOfItem = schemaOf(item);
            if (kindOfItem == "Transition.1") continue;  // overlaps its neighbours; takes no room
            if (kindOfItem == "Gap.1") {
                const std::string rangePath = member(itemPath, "source_range");
                const Json* gapRange = find(item, "source_range");
                if (gapRange == nullptr) return fail(rangePath, "a TimeRange.1 object");
                Range gap;
                if (!range(*gapRange, rangePath, &gap)) return false;
                if (!addCns(position, gap.duration, &position)) return fail(member(rangePath, "duration"), kTimeRangeText);
                continue;
            }
            if (kindOfItem == "Clip.1" || kindOfItem == "Clip.2") {
                DmClipDesc clip;
                if (!readClip(item, itemPath, kindOfItem == "Clip.2", &position, &clip)) return false;
                track->clips.push_back(std::move(clip));
                continue;
            }
            return fail(member(itemPath, "OTIO_SCHEMA"), "\"Clip.1\", \"Clip.2\", \"Gap.1\" or \"Transition.1\"");
        }
        return true;
    }

    bool readReference(const Json* value, const std::string& path, Reference* out) {
        if (value == nullptr || !value->is_object()) return fail(path, "a media reference");
        const std::string kind = schemaOf(*value);
        if (kind == "ExternalReference.1") {
            const std::string urlPath = member(path, "target_url");
            const Json* url = find(*value, "target_url");
            if (url == nullptr || !url->is_string()) return fail(urlPath, "a string");
            if (!mediaPath(url->get_ref<const std::string&>(), &out->mediaPath))
                return fail(urlPath, "a local file URL or a path");
        } else if (kind != "MissingReference.1") {
            return fail(member(path, "OTIO_SCHEMA"), "\"ExternalReference.1\" or \"MissingReference.1\"");
        }
        if (const Json* available = present(*value, "available_range")) {
            if (!range(*available, member(path, "available_range"), &out->available)) return false;
            out->hasAvailable = true;
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

    bool readClip(const Json& item, const std::string& path, bool secondForm, int64_t* position, DmClipDesc* clip) {
        if (!optionalString(item, path, "name", &clip->name)) return false;
        bool enabled = true;
        if (!optionalBool(item, path, "enabled", &enabled)) return false;
        clip->enabled = enabled;
        clip->mute = !enabled;

        // The media reference.
        Reference reference;
        if (secondForm) {
            std::string key = "DEFAULT_MEDIA";
            if (!optionalString(item, path, "active_media_reference_key", &key)) return false;
            const std::string referencesPath = member(path, "media_references");
            const Json* references = find(item, "media_references");
            if (references == nullptr || !references->is_object()) return fail(referencesPath, "an object");
            const Json* chosen = find(*references, key);
            if (!readReference(chosen, member(referencesPath, key), &reference)) return false;
        } else {
            if (!readReference(find(item, "media_reference"), member(path, "media_reference"), &reference))
                return false;
        }
        clip->mediaPath = reference.mediaPath;

        // The source range, in the media's time, and the range on the track.
        const std::string sourcePath = member(path, "source_range");
        Range source;
        if (const Json* sourceRange = present(item, "source_range")) {
            if (!range(*sourceRange, sourcePath, &source)) return false;
        } else if (reference.hasAvailable) {
            source = reference.available;
        } else {
            return fail(sourcePath, "a source_range or an available_range");
        }
        const int64_t availableStart = reference.hasAvailable ? reference.available.start : 0;
        if (__builtin_sub_overflow(source.start, availableStart, &clip->markIn))
            return fail(member(sourcePath, "start_time"), kTimeRangeText);
        clip->begin = *position;
        if (!addCns(*position, source.duration, &clip->end)) return fail(member(sourcePath, "duration"), kTimeRangeText);
        *position = clip->end;

        // Time effects: the product of the time scalars.
        double k = 1.0;
        const std::string effectsPath = member(path, "effects");
        if (const Json* effects = present(item, "effects")) {
            if (!effects->is_array()) return fail(effectsPath, "an array");
            for (size_t i = 0; i < effects->size(); ++i) {
                const Json& effect = (*effects)[i];
                const std::string effectPath = element(effectsPath, i);
                if (!effect.is_object()) return fail(effectPath, "an effect object");
                const Json* effectSchema = find(effect, "OTIO_SCHEMA");
                if (effectSchema == nullptr || !effectSchema->is_string())
                    return fail(member(effectPath, "OTIO_SCHEMA"), "a string");
                const std::string& effectKind = effectSchema->get_ref<const std::string&>();
                if (effectKind == "FreezeFrame.1") {
                    k *= 0.0;
                } else if (effectKind == "LinearTimeWarp.1") {
                    double scalar = 0.0;
                    if (!number(effect, effectPath, "time_scalar", &scalar)) return false;
                    k *= scalar;
                    if (!std::isfinite(k))
                        return fail(member(effectPath, "time_scalar"), "time scalars with a finite product");
                }
                // Other effects have no bearing on the description.
            }
        }
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
            if (!std::isfinite(scaled) || scaled >= kCnsLimit || !addCns(clip->markIn, std::llround(scaled), &clip->markOut))
                return fail(member(sourcePath, "duration"), kTimeRangeText);
        }
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
                if (!pair[1].is_number()) return fail(element(pairPath, 1), "a number");
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
                if (!(speed >= 0.0)) return fail(member(partPath, "speed"), "a number of 0 or more");
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
    return kDocumentError;
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

        TreeBuilder builder;
        Json::sax_parse(text, &builder);
        if (builder.failed)
            return failWith(error,
                            shown + ": invalid JSON at byte " + std::to_string(builder.failedAt) + ": " + builder.message);
        text.clear();
        text.shrink_to_fit();

        DocumentReader reader(shown);
        DmTimelineDesc result;
        if (!reader.readTimeline(builder.root, &result)) return failWith(error, shown + ": " + reader.fault());
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
