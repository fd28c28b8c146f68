// Faults of the command line told as they are: folders that cannot be
// written (a file in the way, read-only, full), temporaries of runs that
// died, paths with control characters, memory that runs out.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "CliTestSupport.h"
#include "MediaTestSupport.h"
#include "ZorUtils/ZorUtils.h"

extern char** environ;

namespace {

using CliTest::CliRun;
using CliTest::Json;
using CliTest::otioClip;
using CliTest::otioTrack;
using CliTest::rampWav;
using CliTest::runMiravel;
using CliTest::runShell;
using CliTest::shellQuoted;
using CliTest::writeDocument;
using MediaTest::ffmpeg;
using ZOR::test::TempFolder;

// 64x36, every frame a keyframe, red for seconds.
std::string redVideo(const TempFolder& folder, int seconds) {
    const std::string video = folder.file("red" + std::to_string(seconds) + ".mp4");
    EXPECT_TRUE(ffmpeg("-f lavfi -i color=c=red:s=64x36:d=" + std::to_string(seconds) +
                       ":r=25 -c:v libx264 -g 1 -pix_fmt yuv420p '" + video + "'"));
    return video;
}

// A busy 640x360 picture, whose PNG files take hundreds of kilobytes.
std::string busyVideo(const TempFolder& folder) {
    const std::string video = folder.file("busy.mp4");
    EXPECT_TRUE(ffmpeg("-f lavfi -i testsrc2=s=640x360:d=1:r=25 -c:v libx264 -pix_fmt yuv420p '" + video + "'"));
    return video;
}

std::string redDocument(const TempFolder& folder, const std::string& video) {
    return writeDocument(folder, "red.otio",
                         Json::array({otioTrack("V1", "Video", Json::array({otioClip("Red", video, 0, 10'000'000)}))}));
}

void expectFailure(const CliRun& run, const std::string& message) {
    EXPECT_EQ(run.exitCode, 1) << run.err;
    EXPECT_TRUE(run.out.empty()) << run.out;
    EXPECT_EQ(run.err.substr(run.err.find("miravel: ") == std::string::npos ? 0 : run.err.find("miravel: ")),
              "miravel: " + message + "\n");
}

// The last line of stderr matches pattern (the progress lines come before).
void expectFailureMatching(const CliRun& run, const std::string& pattern) {
    EXPECT_EQ(run.exitCode, 1) << run.err;
    EXPECT_TRUE(run.out.empty()) << run.out;
    const std::string last =
        run.err.substr(run.err.find("miravel: ") == std::string::npos ? 0 : run.err.find("miravel: "));
    EXPECT_TRUE(std::regex_match(last, std::regex("miravel: " + pattern + "\n"))) << last;
}

std::set<std::string> namesIn(const std::filesystem::path& folder) {
    std::set<std::string> names;
    std::error_code ec;
    for (auto it = std::filesystem::directory_iterator(folder, ec); !ec && it != std::filesystem::directory_iterator();
         it.increment(ec))
        names.insert(it->path().filename().string());
    return names;
}

size_t temporariesIn(const std::set<std::string>& names) {
    return static_cast<size_t>(std::count_if(
        names.begin(), names.end(), [](const std::string& name) { return name.find(".tmp-") != std::string::npos; }));
}

// The id of a process that has ended and been waited for.
pid_t endedProcess() {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(0);
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return child;
}

// ---------------------------------------------------------------------------
// Folders in their own mount namespace: a small tmpfs, read-only or full.

// Runs a shell script in a mount namespace of its own (unshare -rm: root
// there whoever runs the test), where it may mount a tmpfs that no one else
// sees. Its stdout and exit code; stderr of miravel goes to err.txt, where
// the script must send it.
CliRun runWithOwnMounts(const TempFolder& folder, const std::string& script) {
    const std::string path = folder.file("script.sh");
    MediaTest::writeText(path, "set -e\n" + script);
    return runShell("unshare -rm sh " + shellQuoted(path) + " 2>" + shellQuoted(folder.file("script-err.txt")),
                    folder.file("err.txt"));
}

// Whether this system lets the tests mount a tmpfs of their own.
bool ownMountsPossible(const TempFolder& folder) {
    std::filesystem::create_directories(folder.file("probe"));
    const CliRun run =
        runWithOwnMounts(folder, "mount -t tmpfs -o size=64k none " + shellQuoted(folder.file("probe")) + "\n");
    return run.exitCode == 0;
}

// Script lines: a tmpfs of size kilobytes at mount, with fill bytes taken.
std::string tmpfsAt(const std::string& mount, int kilobytes, long fill) {
    std::filesystem::create_directories(mount);
    std::string lines = "mount -t tmpfs -o size=" + std::to_string(kilobytes) + "k none " + shellQuoted(mount) + "\n";
    if (fill > 0)
        lines += "head -c " + std::to_string(fill) + " /dev/zero > " + shellQuoted(mount + "/fill") + " || true\n";
    return lines;
}

// Script lines: runs miravel with the frame store under cache, its stderr
// to err.txt; then lists what listed holds into listing.txt (glob allowed),
// and ends with miravel's exit code.
std::string miravelThen(const TempFolder& folder, const std::string& cache, const std::string& arguments,
                        const std::string& listed) {
    return "set +e\nXDG_CACHE_HOME=" + shellQuoted(cache) + " '" MIRAVEL_CLI "' " + arguments + " 2>" +
           shellQuoted(folder.file("err.txt")) + "\ncode=$?\nls -A " + listed + " > " +
           shellQuoted(folder.file("listing.txt")) + " 2>/dev/null\nexit $code\n";
}

std::set<std::string> listing(const TempFolder& folder) {
    std::set<std::string> names;
    std::ifstream in(folder.file("listing.txt"));
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) names.insert(line);
    return names;
}

TEST(MiravelCliFaults, AFileWhereAFolderShouldBeIsNotAFolder) {
    TempFolder folder;
    const std::string video = redVideo(folder, 1);
    const std::string document = redDocument(folder, video);
    const std::string file = folder.file("a-file");
    MediaTest::writeText(file, "in the way");

    expectFailureMatching(runMiravel(folder, "frames " + shellQuoted(video) + " --times 0 --size 8x8", file),
                          file + "/miravel/frames/red1\\.mp4-[0-9a-f]{16}: cannot write the frame store: not a folder");
    expectFailure(runMiravel(folder, "media " + shellQuoted(video) + " --root " + shellQuoted(file)),
                  file + "/media_thumbnail: cannot write the media thumbnails: not a folder");
    expectFailure(runMiravel(folder, "video " + shellQuoted(document) + " --clip Red --times 0 --size 8x8 --out " +
                                         shellQuoted(file)),
                  file + ": cannot write the pictures: not a folder");
    expectFailure(runMiravel(folder,
                             "video " + shellQuoted(document) + " --clip Red --times 0 --size 8x8 --out " +
                                 shellQuoted(folder.file("pictures")),
                             file),
                  file + "/miravel/frames: cannot write the frame store: not a folder");
    expectFailure(runMiravel(folder, "render " + shellQuoted(document) + " --out " + shellQuoted(file + "/t.png")),
                  file + ": cannot write the timeline picture: not a folder");
    expectFailure(runMiravel(folder, "demo --out " + shellQuoted(file + "/demo")),
                  file + "/demo: cannot write the demo's files: not a folder");
    EXPECT_EQ(MediaTest::readBytes(file).size(), 10u);
}

TEST(MiravelCliFaults, AReadOnlyFolderIsTold) {
    TempFolder folder;
    if (!ownMountsPossible(folder)) GTEST_SKIP() << "no mount namespace of our own here (unshare -rm)";
    const std::string video = redVideo(folder, 1);
    const std::string document = redDocument(folder, video);
    const std::string mount = folder.file("ro");
    const std::string readOnly = tmpfsAt(mount, 256, 0) + "mount -o remount,ro,bind " + shellQuoted(mount) + "\n";

    CliRun run = runWithOwnMounts(
        folder, readOnly + miravelThen(folder, mount, "frames " + shellQuoted(video) + " --times 0 --size 8x8", mount));
    expectFailureMatching(run, mount +
                                   "/miravel/frames/red1\\.mp4-[0-9a-f]{16}: cannot write the frame store: "
                                   "read-only file system");
    run = runWithOwnMounts(
        folder, readOnly + miravelThen(folder, folder.file("cache"),
                                       "media " + shellQuoted(video) + " --root " + shellQuoted(mount), mount));
    expectFailure(run, mount + "/media_thumbnail: cannot write the media thumbnails: read-only file system");
    run = runWithOwnMounts(
        folder, readOnly + miravelThen(folder, folder.file("cache"),
                                       "video " + shellQuoted(document) + " --clip Red --times 0 --size 8x8 --out " +
                                           shellQuoted(mount + "/out"),
                                       mount));
    expectFailure(run, mount + "/out: cannot write the pictures: read-only file system");
    EXPECT_TRUE(listing(folder).empty());
}

TEST(MiravelCliFaults, AFullDiskIsToldBeforeAnyWork) {
    TempFolder folder;
    if (!ownMountsPossible(folder)) GTEST_SKIP() << "no mount namespace of our own here (unshare -rm)";
    const std::string video = redVideo(folder, 1);
    const std::string document = redDocument(folder, video);
    const std::string mount = folder.file("full");
    const std::string full = tmpfsAt(mount, 64, 1 << 20);  // filled to the last byte

    CliRun run = runWithOwnMounts(
        folder, full + miravelThen(folder, mount, "frames " + shellQuoted(video) + " --times 0 --size 8x8",
                                   mount + "/miravel/frames/*/"));
    expectFailureMatching(run,
                          mount + "/miravel/frames/red1\\.mp4-[0-9a-f]{16}: cannot write the frame store: disk full");
    EXPECT_TRUE(listing(folder).empty());
    run = runWithOwnMounts(folder, full + miravelThen(folder, folder.file("cache"),
                                                      "media " + shellQuoted(video) + " --root " + shellQuoted(mount),
                                                      mount + "/media_thumbnail"));
    expectFailure(run, mount + "/media_thumbnail: cannot write the media thumbnails: disk full");
    EXPECT_TRUE(listing(folder).empty());
    run = runWithOwnMounts(
        folder, full + miravelThen(folder, folder.file("cache"),
                                   "video " + shellQuoted(document) + " --clip Red --times 0 --size 8x8 --out " +
                                       shellQuoted(mount + "/out"),
                                   mount + "/out"));
    expectFailure(run, mount + "/out: cannot write the pictures: disk full");
    EXPECT_TRUE(listing(folder).empty());
}

TEST(MiravelCliFaults, AFullDiskDuringAWaveStoreWriteLeavesNoTemporaryAndTheValuesStayRight) {
    TempFolder folder;
    if (!ownMountsPossible(folder)) GTEST_SKIP() << "no mount namespace of our own here (unshare -rm)";
    const std::string wav = rampWav(folder, 44100);
    const std::string arguments = "peaks " + shellQuoted(wav) + " --points 100 --channels";
    // The values as a run with room for its store prints them.
    const CliRun roomy =
        runShell("MIRAVEL_WAVE_STORE=1 XDG_CACHE_HOME=" + shellQuoted(folder.file("cache")) + " '" MIRAVEL_CLI "' " +
                     arguments + " 2>" + shellQuoted(folder.file("roomy-err.txt")),
                 folder.file("roomy-err.txt"));
    ASSERT_EQ(roomy.exitCode, 0) << roomy.err;

    // The store folder is made, then the disk filled to 4 KiB short of full:
    // the store file (about 11 KB) does not fit.
    const std::string mount = folder.file("full");
    std::filesystem::create_directories(mount);
    const std::string script =
        "mount -t tmpfs -o size=64k none " + shellQuoted(mount) + "\nmkdir -p " +
        shellQuoted(mount + "/miravel/waves") + "\nhead -c 61440 /dev/zero > " + shellQuoted(mount + "/fill") +
        " || true\nset +e\nMIRAVEL_WAVE_STORE=1 XDG_CACHE_HOME=" + shellQuoted(mount) + " '" MIRAVEL_CLI "' " +
        arguments + " --log warning 2>" + shellQuoted(folder.file("err.txt")) + "\ncode=$?\nls -A " +
        shellQuoted(mount + "/miravel/waves") + " > " + shellQuoted(folder.file("listing.txt")) + "\nexit $code\n";
    const CliRun run = runWithOwnMounts(folder, script);
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out, roomy.out);
    EXPECT_NE(run.err.find("the wave store cannot write '" + mount + "/miravel/waves/"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("(disk full): the levels stay in memory only"), std::string::npos) << run.err;
    // Nothing half-written: no temporary and no store file; a lock file may stay.
    for (const std::string& name : listing(folder)) {
        EXPECT_EQ(name.find(".tmp-"), std::string::npos) << name;
        EXPECT_TRUE(name.size() > 5 && name.compare(name.size() - 5, 5, ".lock") == 0) << name;
    }
}

// Runs miravel with an injected write fault (MIRAVEL_WRITE_FAULT) and the
// wave store off, its stderr to stderr.txt.
CliRun runWithFault(const TempFolder& folder, const std::string& fault, const std::string& arguments,
                    const std::string& cache) {
    const std::string errPath = folder.file("stderr.txt");
    return runShell("MIRAVEL_WAVE_STORE=0 MIRAVEL_WRITE_FAULT=" + fault + " XDG_CACHE_HOME=" + shellQuoted(cache) +
                        " '" MIRAVEL_CLI "' " + arguments + " 2>" + shellQuoted(errPath),
                    errPath);
}

// Checks that no file under the folder, at any depth, is a temporary.
void expectNoTemporariesUnder(const std::string& under) {
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(under, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec))
        EXPECT_EQ(it->path().filename().string().find(".tmp-"), std::string::npos) << it->path();
}

// The faults each injected-fault test runs with: the name MIRAVEL_WRITE_FAULT
// takes and the errno.
const std::vector<std::pair<std::string, int>>& eachFault() {
    static const std::vector<std::pair<std::string, int>> faults{{"ENOSPC", ENOSPC}, {"EIO", EIO}, {"EACCES", EACCES}};
    return faults;
}

// Every file of the frame store and of a media root written under an
// injected fault (MIRAVEL_WRITE_FAULT): the command fails naming the folder
// and the cause, leaves no temporary, and the next run completes.
TEST(MiravelCliFaults, InjectedWriteFaultsFailTheCommandNamingTheCauseAndLeaveNothing) {
    TempFolder folder;
    const std::string video = redVideo(folder, 1);
    const auto noTemporaries = expectNoTemporariesUnder;
    const auto withFault = [&](const std::string& fault, const std::string& arguments, const std::string& cache) {
        return runWithFault(folder, fault, arguments, cache);
    };
    for (const auto& [name, error] :
         {std::pair<std::string, int>{"ENOSPC", ENOSPC}, {"EIO", EIO}, {"EACCES", EACCES}}) {
        SCOPED_TRACE(name);
        const std::string cache = folder.file("cache-" + name);
        const std::string root = folder.file("root-" + name);
        const std::string frames = "frames " + shellQuoted(video) + " --times 0 --size 8x8";
        CliRun run = withFault(name + ":1", frames, cache);
        expectFailureMatching(run, cache + "/miravel/frames/red1\\.mp4-[0-9a-f]{16}: cannot write the frame store: " +
                                       ZOR::writeErrorText(error));
        noTemporaries(cache);
        run = runMiravel(folder, frames, cache);
        EXPECT_EQ(run.exitCode, 0) << run.err;

        const std::string media =
            "media " + shellQuoted(video) + " --root " + shellQuoted(root) + " --count 3 --box 16x16";
        run = withFault(name + ":2", media, cache);
        expectFailure(run, root + "/media_thumbnail: cannot write the media thumbnails (1 of 3 pictures missing): " +
                               ZOR::writeErrorText(error));
        noTemporaries(root);
        run = runMiravel(folder, media, cache);
        EXPECT_EQ(run.exitCode, 0) << run.err;
        EXPECT_EQ(std::filesystem::exists(root + "/media_thumbnail/0_16_16.png"), true);
        EXPECT_EQ(std::filesystem::exists(root + "/media_thumbnail/1_16_16.png"), true);
        EXPECT_EQ(std::filesystem::exists(root + "/media_thumbnail/2_16_16.png"), true);
        noTemporaries(root);
    }
}

// The timeline picture of render --out written under an injected fault: the
// command fails naming the file and the cause, no file and no temporary is
// left, and the next run writes the picture. The document has sound only:
// with the wave store off the picture is the run's only file.
TEST(MiravelCliFaults, AnInjectedFaultWritingTheTimelinePictureFailsRenderAndLeavesNothing) {
    TempFolder folder;
    const std::string wav = rampWav(folder, 44100);
    const std::string document =
        writeDocument(folder, "sound.otio",
                      Json::array({otioTrack("A1", "Audio", Json::array({otioClip("Ramp", wav, 0, 20'000'000)}))}));
    for (const auto& [name, error] : eachFault()) {
        SCOPED_TRACE(name);
        const std::string out = folder.file("out-" + name);
        std::filesystem::create_directories(out);
        const std::string picture = out + "/timeline.png";
        const std::string render = "render " + shellQuoted(document) + " --out " + shellQuoted(picture);
        CliRun run = runWithFault(folder, name + ":1", render, folder.file("cache"));
        expectFailure(run, picture + ": cannot write the timeline picture: " + ZOR::writeErrorText(error));
        EXPECT_TRUE(namesIn(out).empty());

        run = runMiravel(folder, render);
        ASSERT_EQ(run.exitCode, 0) << run.err;
        EXPECT_EQ(Json::parse(run.out).at("file").get<std::string>(), picture);
        EXPECT_EQ(namesIn(out), std::set<std::string>{"timeline.png"});
        unsigned char* pixels = nullptr;
        int width = 0;
        int height = 0;
        ASSERT_EQ(ZOR::loadPNG(picture.c_str(), &pixels, &width, &height), 0);
        ZOR::freeImageBuffer(pixels);
        EXPECT_EQ(width, 1600);
    }
}

// The pictures of video --out written under an injected fault, the frame
// store holding them already (a run before wrote it): the command fails
// naming the picture and the cause, takes back the pictures it wrote, leaves
// no temporary, and the next run writes them all.
TEST(MiravelCliFaults, AnInjectedFaultWritingAPictureOfVideoFailsItAndTakesBackWhatItWrote) {
    TempFolder folder;
    const std::string video = redVideo(folder, 1);
    const std::string document = redDocument(folder, video);
    const std::string cache = folder.file("cache");
    const auto pictures = [&](const std::string& times, const std::string& out) {
        return "video " + shellQuoted(document) + " --clip Red --times " + times + " --size 8x8 --out " +
               shellQuoted(out);
    };
    CliRun run = runMiravel(folder, pictures("0,400000", folder.file("warm")), cache);
    ASSERT_EQ(run.exitCode, 0) << run.err;
    for (const auto& [name, error] : eachFault()) {
        SCOPED_TRACE(name);
        const std::string one = folder.file("one-" + name);
        run = runWithFault(folder, name + ":1", pictures("0", one), cache);
        expectFailure(run, one + "/Red-0.png: cannot write the picture: " + ZOR::writeErrorText(error));
        EXPECT_TRUE(namesIn(one).empty());

        // The first picture written, the second failing: neither stays.
        const std::string two = folder.file("two-" + name);
        run = runWithFault(folder, name + ":2", pictures("0,400000", two), cache);
        expectFailure(run, two + "/Red-400000.png: cannot write the picture: " + ZOR::writeErrorText(error));
        EXPECT_TRUE(namesIn(two).empty());

        run = runMiravel(folder, pictures("0,400000", two), cache);
        ASSERT_EQ(run.exitCode, 0) << run.err;
        EXPECT_EQ(namesIn(two), (std::set<std::string>{"Red-0.png", "Red-400000.png"}));
    }
    expectNoTemporariesUnder(cache);
}

// A picture the frame store cannot keep is delivered all the same (from the
// frame task's report) by video and render, which complete; the store lacks
// that file and no temporary, and the next run stores it.
TEST(MiravelCliFaults, AFrameStoreFileNotWrittenStillGivesThePicturesOfVideoAndRender) {
    TempFolder folder;
    const std::string video = redVideo(folder, 1);
    const std::string document = redDocument(folder, video);
    const auto storedPictures = [](const std::string& cache) {
        size_t count = 0;
        std::error_code ec;
        for (auto it = std::filesystem::recursive_directory_iterator(cache + "/miravel/frames", ec);
             !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec))
            if (it->path().extension() == ".png") ++count;
        return count;
    };
    for (const auto& [name, error] : eachFault()) {
        SCOPED_TRACE(name);
        const std::string cache = folder.file("cache-" + name);
        const std::string out = folder.file("out-" + name);
        // --timeout 600: a run that waited for a lost picture would not end
        // within the test's own limit.
        const std::string pictures = "video " + shellQuoted(document) +
                                     " --clip Red --times 0,400000 --size 8x8 --timeout 600 --out " + shellQuoted(out);
        CliRun run = runWithFault(folder, name + ":1", pictures, cache);
        ASSERT_EQ(run.exitCode, 0) << run.err;
        EXPECT_EQ(namesIn(out), (std::set<std::string>{"Red-0.png", "Red-400000.png"}));
        EXPECT_EQ(storedPictures(cache), 1u);
        expectNoTemporariesUnder(cache);
        run = runMiravel(folder, pictures, cache);
        ASSERT_EQ(run.exitCode, 0) << run.err;
        EXPECT_EQ(storedPictures(cache), 2u);

        const std::string picture = folder.file("timeline-" + name + ".png");
        const std::string renderCache = folder.file("render-cache-" + name);
        run = runWithFault(folder, name + ":1",
                           "render " + shellQuoted(document) + " --timeout 600 --out " + shellQuoted(picture),
                           renderCache);
        ASSERT_EQ(run.exitCode, 0) << run.err;
        EXPECT_EQ(Json::parse(run.out).at("file").get<std::string>(), picture);
        EXPECT_TRUE(std::filesystem::is_regular_file(picture));
        expectNoTemporariesUnder(renderCache);
    }
}

// The demo's JSON files written under an injected fault (the timeline
// document is its first file written whole): the demo fails naming the file
// and the cause, leaves no such file and no temporary, and the next run
// writes every file.
TEST(MiravelCliFaults, AnInjectedFaultWritingAJsonFileOfTheDemoFailsItAndLeavesNothing) {
    TempFolder folder;
    for (const auto& [name, error] : eachFault()) {
        SCOPED_TRACE(name);
        const std::string out = folder.file("demo-" + name);
        CliRun run = runWithFault(folder, name + ":1", "demo --out " + shellQuoted(out), folder.file("cache"));
        expectFailure(run, out + "/timeline.otio: cannot write the file: " + ZOR::writeErrorText(error));
        EXPECT_EQ(namesIn(out).count("timeline.otio"), 0u);
        expectNoTemporariesUnder(out);

        run = runMiravel(folder, "demo --out " + shellQuoted(out));
        ASSERT_EQ(run.exitCode, 0) << run.err;
        const std::set<std::string> names = namesIn(out);
        for (const char* file :
             {"timeline.otio", "wave.json", "frames.json", "video.json", "media-thumbnails.json", "summary.json"}) {
            EXPECT_EQ(names.count(file), 1u) << file;
            const std::vector<char> text = MediaTest::readBytes(out + "/" + file);
            EXPECT_TRUE(Json::accept(text.begin(), text.end())) << file;
        }
        expectNoTemporariesUnder(out);
    }
}

TEST(MiravelCliFaults, PicturesThatDoNotFitOnTheDiskFailTheCommand) {
    TempFolder folder;
    if (!ownMountsPossible(folder)) GTEST_SKIP() << "no mount namespace of our own here (unshare -rm)";
    const std::string video = busyVideo(folder);
    const std::string mount = folder.file("nearly");
    // Room for a small file, not for a picture.
    const std::string nearlyFull = tmpfsAt(mount, 256, 240 * 1024);

    CliRun run = runWithOwnMounts(
        folder,
        nearlyFull + miravelThen(folder, mount, "frames " + shellQuoted(video) + " --times 0,400000 --size 640x360",
                                 mount + "/miravel/frames/*/"));
    expectFailureMatching(run,
                          mount + "/miravel/frames/busy\\.mp4-[0-9a-f]{16}: cannot write the frame store: disk full");
    EXPECT_TRUE(listing(folder).empty());  // no picture, no temporary

    run = runWithOwnMounts(folder, nearlyFull + miravelThen(folder, folder.file("cache"),
                                                            "media " + shellQuoted(video) + " --root " +
                                                                shellQuoted(mount) + " --count 3 --box 640x360",
                                                            mount + "/media_thumbnail"));
    expectFailure(run,
                  mount + "/media_thumbnail: cannot write the media thumbnails (3 of 3 pictures missing): disk full");
    EXPECT_TRUE(listing(folder).empty());
}

TEST(MiravelCliFaults, AFolderNotOursToWriteIsTold) {
    TempFolder folder;
    const std::string video = redVideo(folder, 1);
    const std::filesystem::path locked = folder.path() / "locked";
    std::filesystem::create_directory(locked);
    std::filesystem::permissions(locked, std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec |
                                             std::filesystem::perms::group_read | std::filesystem::perms::group_exec |
                                             std::filesystem::perms::others_read | std::filesystem::perms::others_exec);
    // Root writes anywhere: the command then runs as nobody.
    std::string runAs;
    if (::geteuid() == 0) {
        if (std::system("setpriv --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "root here, and no setpriv";
        runAs = "setpriv --reuid=65534 --regid=65534 --clear-groups ";
    }
    const std::string root = (locked / "thumbs").string();
    const std::string errPath = folder.file("stderr.txt");
    const CliRun run = runShell(runAs + "'" MIRAVEL_CLI "' media " + shellQuoted(video) + " --root " +
                                    shellQuoted(root) + " 2>" + shellQuoted(errPath),
                                errPath);
    expectFailure(run, root + "/media_thumbnail: cannot write the media thumbnails: permission denied");
    EXPECT_TRUE(namesIn(locked).empty());
}

// ---------------------------------------------------------------------------
// Temporaries of runs that died

// Starts miravel with arguments, its stdout to /dev/null and its stderr to
// the returned pipe.
pid_t startMiravel(const std::vector<std::string>& arguments, const std::string& cache, int* errRead) {
    int pipeEnds[2] = {-1, -1};
    if (::pipe(pipeEnds) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], 2);
    posix_spawn_file_actions_addclose(&actions, pipeEnds[0]);
    posix_spawn_file_actions_addclose(&actions, pipeEnds[1]);
    std::vector<std::string> words{MIRAVEL_CLI};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    std::vector<std::string> variables{"XDG_CACHE_HOME=" + cache};
    for (char** each = environ; *each != nullptr; ++each)
        if (std::strncmp(*each, "XDG_CACHE_HOME=", 15) != 0) variables.emplace_back(*each);
    std::vector<char*> envp;
    for (std::string& variable : variables) envp.push_back(variable.data());
    envp.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, MIRAVEL_CLI, &actions, nullptr, argv.data(), envp.data()) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeEnds[1]);
    *errRead = pipeEnds[0];
    return pid;
}

// Reads progress lines ("media: 30%") until one says at least percent;
// false at the end of the stream first.
bool readUntilProgress(int fd, int percent) {
    std::string text;
    char buffer[256];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got <= 0) return false;
        text.append(buffer, static_cast<size_t>(got));
        for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n')) {
            const std::string line = text.substr(0, end);
            text.erase(0, end + 1);
            if (line.rfind("media: ", 0) == 0 && std::atoi(line.c_str() + 7) >= percent) return true;
        }
    }
}

TEST(MiravelCliFaults, AKilledMediaRunIsCompletedByTheNextAndItsTemporariesGo) {
    TempFolder folder;
    const std::string video = redVideo(folder, 10);
    const std::string root = folder.file("thumbs");
    const std::string cacheDir = root + "/media_thumbnail";
    const std::vector<std::string> arguments{"media", video, "--root", root, "--count", "300", "--box", "32x18"};

    int errRead = -1;
    const pid_t killed = startMiravel(arguments, folder.file("cache"), &errRead);
    ASSERT_GT(killed, 0);
    const bool partWay = readUntilProgress(errRead, 30);
    ::kill(killed, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(killed, &status, 0), killed);
    ::close(errRead);
    ASSERT_TRUE(partWay);
    ASSERT_TRUE(WIFSIGNALED(status));
    std::set<std::string> before = namesIn(cacheDir);
    const size_t pictures = before.size() - temporariesIn(before);
    ASSERT_GT(pictures, 0u);
    ASSERT_LT(pictures, 300u);

    // What a writer that died leaves, and what one still writing has: both
    // named after the picture they were writing.
    std::vector<int> missingIndexes;
    for (int i = 0; i < 300; ++i)
        if (before.count(std::to_string(i) + "_32_18.png") == 0) missingIndexes.push_back(i);
    const std::string dead = std::to_string(missingIndexes.front()) + "_32_18.png.tmp-" + std::to_string(killed) + "-0";
    const std::string alive =
        std::to_string(missingIndexes.back()) + "_32_18.png.tmp-" + std::to_string(::getpid()) + "-0";
    MediaTest::writeText(cacheDir + "/" + dead, "half a picture");
    MediaTest::writeText(cacheDir + "/" + alive, "being written");

    const CliRun run =
        runMiravel(folder, "media " + shellQuoted(video) + " --root " + shellQuoted(root) + " --count 300 --box 32x18");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const Json printed = Json::parse(run.out);
    std::set<int> listed;
    for (const Json& file : printed.at("files")) {
        EXPECT_EQ(file.at("file").get<std::string>(),
                  cacheDir + "/" + std::to_string(file.at("index").get<int>()) + "_32_18.png");
        listed.insert(file.at("index").get<int>());
    }
    // The pictures missing were made, the one beside the live temporary too.
    EXPECT_EQ(listed, std::set<int>(missingIndexes.begin(), missingIndexes.end()));
    const std::set<std::string> after = namesIn(cacheDir);
    EXPECT_EQ(after.size(), 301u);
    EXPECT_EQ(temporariesIn(after), 1u);
    EXPECT_EQ(after.count(alive), 1u);
    for (int i = 0; i < 300; ++i) EXPECT_EQ(after.count(std::to_string(i) + "_32_18.png"), 1u) << i;
}

TEST(MiravelCliFaults, TemporariesOfEndedWritersLeaveTheFrameStoreAndTheOutFolder) {
    TempFolder folder;
    const std::string video = redVideo(folder, 1);
    const std::string frames = "frames " + shellQuoted(video) + " --size 8x8 --times ";
    CliRun run = runMiravel(folder, frames + "0");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const std::string store = std::filesystem::path(Json::parse(run.out).at("frames")[0].at("file").get<std::string>())
                                  .parent_path()
                                  .string();
    const std::string dead = "s0-8x8-t400000-p400000.png.tmp-" + std::to_string(endedProcess()) + "-0";
    const std::string alive = "s0-8x8-t800000-p800000.png.tmp-" + std::to_string(::getpid()) + "-0";
    MediaTest::writeText(store + "/" + dead, "half a picture");
    MediaTest::writeText(store + "/" + alive, "being written");
    run = runMiravel(folder, frames + "400000,800000");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const Json listed = Json::parse(run.out).at("frames");
    EXPECT_EQ(listed[0].at("file").get<std::string>(), store + "/s0-8x8-t400000-p400000.png");
    EXPECT_EQ(listed[1].at("file").get<std::string>(), store + "/s0-8x8-t800000-p800000.png");
    EXPECT_EQ(namesIn(store), (std::set<std::string>{"s0-8x8-t0-p0.png", "s0-8x8-t400000-p400000.png",
                                                     "s0-8x8-t800000-p800000.png", alive}));

    const std::string document = redDocument(folder, video);
    const std::string out = folder.file("pictures");
    std::filesystem::create_directories(out);
    const std::string deadOut = "Red-0.png.tmp-" + std::to_string(endedProcess()) + "-2";
    const std::string aliveOut = "Red-400000.png.tmp-" + std::to_string(::getpid()) + "-2";
    MediaTest::writeText(out + "/" + deadOut, "half a picture");
    MediaTest::writeText(out + "/" + aliveOut, "being written");
    run = runMiravel(
        folder, "video " + shellQuoted(document) + " --clip Red --times 0,400000 --size 8x8 --out " + shellQuoted(out));
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(namesIn(out), (std::set<std::string>{"Red-0.png", "Red-400000.png", aliveOut}));
}

// ---------------------------------------------------------------------------
// Messages

TEST(MiravelCliFaults, ControlCharactersInPathsAndTextsAreEscapedOnOneLine) {
    TempFolder folder;
    const std::string missing = folder.file("line\nbreak\tand\x1b.wav");
    CliRun run = runMiravel(folder, "wave " + shellQuoted(missing) + " --begin 0 --end 400000 --samples 1");
    expectFailure(run, "'" + folder.file("line\\nbreak\\tand\\x1b.wav") + "': No such file or directory");
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;

    const std::string video = redVideo(folder, 1);
    const std::string blocker = folder.file("two\nlines");
    MediaTest::writeText(blocker, "in the way");
    run = runMiravel(folder, "media " + shellQuoted(video) + " --root " + shellQuoted(blocker));
    expectFailure(run,
                  folder.file("two\\nlines") + "/media_thumbnail: cannot write the media thumbnails: not a folder");
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;

    run = runMiravel(folder, "media " + shellQuoted(video) + " --root r --seek " + shellQuoted("fa\nst"));
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_EQ(run.err.substr(0, run.err.find('\n') + 1), "miravel: --seek needs exact or keyframe, not 'fa\\nst'\n");
}

TEST(MiravelCliFaults, RunningOutOfMemoryNamesTheDocument) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers reserve more address space than the limit this test sets";
#else
    TempFolder folder;
    // Empty tracks: a picture of 16384x4096 at --width 16384, 256 MiB.
    Json tracks = Json::array();
    for (int i = 0; i < 57; ++i) tracks.push_back(otioTrack("V", "Video", Json::array()));
    for (int i = 0; i < 6; ++i) tracks.push_back(otioTrack("A", "Audio", Json::array()));
    const std::string document = writeDocument(folder, "wide.otio", tracks);
    const std::string errPath = folder.file("stderr.txt");
    const auto render = [&](const char* width) {
        return runShell("ulimit -v 300000; XDG_CACHE_HOME=" + shellQuoted(folder.file("cache")) +
                            " '" MIRAVEL_CLI "' render " + shellQuoted(document) + " --out " +
                            shellQuoted(folder.file("t.png")) + " --width " + width + " 2>" + shellQuoted(errPath),
                        errPath);
    };
    // Within 300 MB of address space a narrow picture is drawn; the widest is not.
    const CliRun narrow = render("400");
    ASSERT_EQ(narrow.exitCode, 0) << narrow.err;
    const CliRun wide = render("16384");
    expectFailure(wide, document + ": out of memory");
#endif
}

}  // namespace
