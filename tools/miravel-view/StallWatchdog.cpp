#include "StallWatchdog.h"

#include <QCoreApplication>
#include <QEvent>

#include <algorithm>
#include <cmath>

namespace miravel::view {
namespace {

const QEvent::Type kProbe = static_cast<QEvent::Type>(QEvent::registerEventType());

class ProbeEvent final : public QEvent {
public:
    explicit ProbeEvent(std::chrono::steady_clock::time_point posted) : QEvent(kProbe), posted_(posted) {}
    std::chrono::steady_clock::time_point posted() const { return posted_; }

private:
    std::chrono::steady_clock::time_point posted_;
};

// The nearest-rank percentile of sorted values.
double percentile(const std::vector<int64_t>& sorted, double fraction) {
    if (sorted.empty()) return 0.0;
    const auto rank = static_cast<size_t>(std::ceil(fraction * static_cast<double>(sorted.size())));
    return static_cast<double>(sorted[std::clamp<size_t>(rank, 1, sorted.size()) - 1]) / 1000.0;
}

}  // namespace

StallWatchdog::StallWatchdog(std::chrono::microseconds interval, QObject* parent)
    : QObject(parent), interval_(interval) {}

StallWatchdog::~StallWatchdog() { stop(); }

void StallWatchdog::start() {
    if (thread_.joinable()) return;
    {
        std::lock_guard<std::mutex> lock(lock_);
        stopping_.store(false);
        delivered_.store(true);
    }
    thread_ = std::thread([this] { run(); });
}

void StallWatchdog::stop() {
    {
        std::lock_guard<std::mutex> lock(lock_);
        stopping_.store(true);
    }
    signal_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void StallWatchdog::run() {
    for (;;) {
        const auto posted = std::chrono::steady_clock::now();
        {
            std::lock_guard<std::mutex> lock(lock_);
            if (stopping_.load()) return;
            delivered_.store(false);
        }
        QCoreApplication::postEvent(this, new ProbeEvent(posted));
        std::unique_lock<std::mutex> lock(lock_);
        signal_.wait(lock, [this] { return delivered_.load() || stopping_.load(); });
        // The next probe leaves one interval after this one was posted.
        if (signal_.wait_until(lock, posted + interval_, [this] { return stopping_.load(); })) return;
    }
}

bool StallWatchdog::event(QEvent* event) {
    if (event->type() != kProbe) return QObject::event(event);
    const auto late = std::chrono::steady_clock::now() - static_cast<ProbeEvent*>(event)->posted();
    {
        std::lock_guard<std::mutex> lock(lock_);
        samples_.push_back(std::chrono::duration_cast<std::chrono::microseconds>(late).count());
        delivered_.store(true);
    }
    signal_.notify_all();
    return true;
}

std::vector<int64_t> StallWatchdog::samples() const {
    std::lock_guard<std::mutex> lock(lock_);
    return samples_;
}

StallWatchdog::Figures StallWatchdog::figures() const {
    std::vector<int64_t> sorted = samples();
    std::sort(sorted.begin(), sorted.end());
    Figures figures;
    figures.count = static_cast<int64_t>(sorted.size());
    figures.p50 = percentile(sorted, 0.50);
    figures.p99 = percentile(sorted, 0.99);
    figures.max = sorted.empty() ? 0.0 : static_cast<double>(sorted.back()) / 1000.0;
    return figures;
}

}  // namespace miravel::view
