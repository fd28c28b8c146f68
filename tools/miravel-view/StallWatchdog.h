// Measures how late the UI thread's event loop delivers what is posted to
// it. A thread of its own posts one probe event at a time to an object of
// the UI thread, every few milliseconds, stamped with the time it was
// posted; the UI thread records how late each probe arrives. A probe is only
// posted once the last one arrived, so one long stall counts once, at its
// full length.
#pragma once

#include <QObject>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace miravel::view {

class StallWatchdog : public QObject {
    Q_OBJECT

public:
    struct Figures {
        int64_t count = 0;  // probes delivered
        double p50 = 0.0;   // milliseconds
        double p99 = 0.0;
        double max = 0.0;
    };

    explicit StallWatchdog(std::chrono::microseconds interval = std::chrono::milliseconds(4),
                           QObject* parent = nullptr);
    // Stops and joins the probing thread.
    ~StallWatchdog() override;
    StallWatchdog(const StallWatchdog&) = delete;
    StallWatchdog& operator=(const StallWatchdog&) = delete;

    void start();
    void stop();
    Figures figures() const;
    // The lateness of every probe so far, in microseconds.
    std::vector<int64_t> samples() const;

protected:
    bool event(QEvent* event) override;

private:
    void run();

    const std::chrono::microseconds interval_;
    mutable std::mutex lock_;         // leaf, never held while posting: guards samples_; the flags change under it
    std::condition_variable signal_;  // waits for delivered_ or stopping_
    std::atomic<bool> stopping_{false};
    std::atomic<bool> delivered_{true};
    std::vector<int64_t> samples_;
    std::thread thread_;
};

}  // namespace miravel::view
