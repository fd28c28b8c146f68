// The demo's timeline documents (OpenTimelineIO JSON with the "miravel"
// metadata), written beside the demo's media and naming them by their file
// names, so that a folder of media and documents can be moved as a whole.
#pragma once

#include <string>

namespace miravel::demo {

// The demo's timeline, 60 s: the video in three clips (the second with a
// frozen stretch), the music bed under it all, and two voice clips that duck
// the music and the video's sound.
std::string demoTimelineDocument();

// A long timeline of clips cut from the demo's media: a third of them video
// clips of 4 s on a video track (some reversed, some with a frozen stretch,
// some quieter), the others music and voice clips of 6 s on two audio tracks
// (the voice ducking the music now and then), with short gaps between them.
// At least one clip. The media are named by their file names, or by their
// paths in mediaFolder when it is given.
std::string manyClipsDocument(int clips, const std::string& mediaFolder = "");

}  // namespace miravel::demo
