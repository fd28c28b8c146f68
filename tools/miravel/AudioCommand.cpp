// miravel audio DOC --clip NAME [--begin CNS --end CNS] --points N [--no-ducking]
//
// One audio thumbnail of a clip of a timeline document through the clip
// thumbnail service: the clip's sound (its base audio clip) over [begin, end)
// of its clip time, passed to the service unchanged (default: the clip's whole
// range). Prints {"clip", "begin", "end", "count", "values": [...]} with the
// values as the service delivered them. --no-ducking turns the service's
// ducking off first; --timeout SECONDS (default 600) bounds the wait.
#include <string>
#include <utility>

#include "ClipService.h"
#include "Commands.h"
#include "Usage.h"
#include "Json.h"

namespace miravel {

std::string audioJson(const AudioRequest& request) {
    TimelineSession session(request.document);
    ZOR::IDmClip* clip = session.clipNamed(request.clip);
    ZOR::IDmClip* audioClip = ZOR::getBaseAudioClip(clip);
    if (audioClip == nullptr) session.failClipLacks(request.clip, "sound");
    auto [begin, end] = clipTimeRange(audioClip);
    if (request.begin) begin = *request.begin;
    if (request.end) end = *request.end;
    if (!request.ducking)
        session.service()->setProperty(ZOR::ClipThumbnailKey::enableCalcDucking, ZOR::boolProperty(false));

    Progress progress("audio");
    Wakeup wakeup;
    AudioThumbnails audio(session.service(), wakeup);
    audio.ask({AudioThumbnails::Query{audioClip, request.clip, begin, end, request.points}});
    waitForThumbnails(request.document, &audio, nullptr, wakeup, request.timeout, progress,
                      [](std::vector<VideoThumbnails::Picture>&&) {});
    progress.finish();

    const AudioThumbnails::Answer& answer = audio.answer(0);
    JsonWriter json;
    json.beginObject()
        .key("clip")
        .value(request.clip)
        .key("begin")
        .value(answer.begin)
        .key("end")
        .value(answer.end)
        .key("count")
        .value(static_cast<int64_t>(answer.values.size()))
        .key("values")
        .beginArray();
    for (float value : answer.values) json.value(value);
    json.endArray().endObject();
    return json.text();
}

int runAudio(int argc, char** argv) {
    Arguments arguments(argc, argv, 2, commandSpec("audio"));
    if (arguments.positional().size() != 1) throw UsageError("audio needs one timeline DOC");
    AudioRequest request;
    request.document = arguments.positional()[0];
    request.clip = arguments.required("clip");
    if (arguments.has("begin") != arguments.has("end")) throw UsageError("--begin and --end go together");
    if (arguments.has("begin")) {
        request.begin = arguments.requiredInteger("begin", limits::time);
        request.end = arguments.requiredInteger("end", limits::time);
        if (*request.end < *request.begin) throw UsageError("--end must not be before --begin");
    }
    request.points = static_cast<uint32_t>(arguments.requiredInteger("points", limits::values));
    request.ducking = !arguments.has("no-ducking");
    request.timeout = commandTimeout(arguments);
    setupCommandLogging(arguments);
    printJson(namingOutOfMemory(request.document, [&] { return audioJson(request); }));
    return 0;
}

}  // namespace miravel
