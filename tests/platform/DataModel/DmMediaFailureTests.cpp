// Media the host could not read or decode: noted with the cause, found by
// any spelling of the path, forgotten when the file changes, told to
// listeners.
#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "MediaTestSupport.h"
#include "Timeouts.h"

namespace {

using namespace std::chrono_literals;
using ZOR::test::kGenerous;

TEST(DmMediaFailures, ANotedFailureIsFoundByAnySpellingOfThePathAndOnlyForItsKind) {
    ZOR::test::TempFolder folder;
    const std::string path = folder.file("broken.mp4");
    MediaTest::writeText(path, "not media");
    ZOR::noteMediaFailure(path.c_str(), ZOR::DmTrackVideo, "'x': no picture could be decoded");
    std::string cause;
    const std::string spelled = (folder.path() / "." / "broken.mp4").string();
    EXPECT_TRUE(ZOR::mediaFailure(spelled.c_str(), ZOR::DmTrackVideo, &cause));
    EXPECT_EQ(cause, "'x': no picture could be decoded");
    EXPECT_FALSE(ZOR::mediaFailure(path.c_str(), ZOR::DmTrackAudio, &cause));
    ZOR::forgetMediaFailures(path.c_str());
    EXPECT_FALSE(ZOR::mediaFailure(path.c_str(), ZOR::DmTrackVideo, &cause));
}

TEST(DmMediaFailures, AFailureNoLongerStandsOnceTheFileChanges) {
    ZOR::test::TempFolder folder;
    const std::string path = folder.file("replaced.wav");
    MediaTest::writeText(path, "broken");
    ZOR::noteMediaFailure(path.c_str(), ZOR::DmTrackAudio, "'replaced.wav': Invalid data");
    EXPECT_TRUE(ZOR::mediaFailure(path.c_str(), ZOR::DmTrackAudio, nullptr));
    MediaTest::writeText(path, "a longer text standing for a repaired file");
    EXPECT_FALSE(ZOR::mediaFailure(path.c_str(), ZOR::DmTrackAudio, nullptr));
}

TEST(DmMediaFailures, NothingIsNotedWithoutAPath) {
    ZOR::noteMediaFailure(nullptr, ZOR::DmTrackAudio, "cause");
    ZOR::noteMediaFailure("", ZOR::DmTrackAudio, "cause");
    EXPECT_FALSE(ZOR::mediaFailure(nullptr, ZOR::DmTrackAudio, nullptr));
    EXPECT_FALSE(ZOR::mediaFailure("", ZOR::DmTrackAudio, nullptr));
}

TEST(DmMediaFailures, ListenersHearEachFailureOnTheNotingThreadUntilRemoved) {
    ZOR::test::TempFolder folder;
    const std::string path = folder.file("a.mp4");
    MediaTest::writeText(path, "x");
    std::vector<ZOR::DmMediaFailure> heard;
    std::vector<std::thread::id> threads;
    const int64_t id = ZOR::addMediaFailureListener([&](const ZOR::DmMediaFailure& failure) {
        heard.push_back(failure);
        threads.push_back(std::this_thread::get_id());
    });
    ASSERT_NE(id, 0);
    std::thread noter([&] { ZOR::noteMediaFailure(path.c_str(), ZOR::DmTrackVideo, "the cause"); });
    const std::thread::id noterId = noter.get_id();
    noter.join();
    ASSERT_EQ(heard.size(), 1u);
    EXPECT_EQ(heard[0].path, std::filesystem::canonical(path).string());
    EXPECT_EQ(heard[0].kind, ZOR::DmTrackVideo);
    EXPECT_EQ(heard[0].cause, "the cause");
    EXPECT_EQ(threads[0], noterId);
    ZOR::removeMediaFailureListener(id);
    ZOR::noteMediaFailure(path.c_str(), ZOR::DmTrackVideo, "again");
    EXPECT_EQ(heard.size(), 1u);
}

// Removing a listener while it runs on another thread waits for it to
// return: afterwards it is neither running nor called again.
TEST(DmMediaFailures, RemovingAListenerWaitsForTheCallInProgress) {
    ZOR::test::TempFolder folder;
    const std::string path = folder.file("b.mp4");
    MediaTest::writeText(path, "x");
    std::promise<void> entered;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> returned{false};
    const int64_t id = ZOR::addMediaFailureListener([&](const ZOR::DmMediaFailure&) {
        entered.set_value();
        released.wait();
        returned.store(true);
    });
    std::thread noter([&] { ZOR::noteMediaFailure(path.c_str(), ZOR::DmTrackAudio, "cause"); });
    ASSERT_EQ(entered.get_future().wait_for(kGenerous), std::future_status::ready);
    auto removal = std::async(std::launch::async, [&] {
        ZOR::removeMediaFailureListener(id);
        return returned.load();
    });
    release.set_value();
    ASSERT_EQ(removal.wait_for(kGenerous), std::future_status::ready);
    EXPECT_TRUE(removal.get()) << "removal returned while the listener was still running";
    noter.join();
}

}  // namespace
