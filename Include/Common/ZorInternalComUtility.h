// The object model shared by every Miravel class and by the data-model objects
// it receives: intrusive reference counting (RefCnt<void>), the weak holder,
// callback registration lists (BaseCallBack<I>), the scoped cost timer
// (ScopeTimeSpan) and the log-line helper (ZOR_LOG).
//
// Everything here is header-only, so any library that wants Miravel-compatible
// objects can include it without linking against Miravel.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <list>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

#include "DataModel/IDmBaseObj.h"
#include "ZorLogger/ZorLogger.h"
#include "ZorUtils/ZorUtils.h"

// ---------------------------------------------------------------------------
// Log lines
//
// Each source file names itself once, as its path from the repository root
// without extension:
//     ZOR_LOG_SOURCE("modules/BaseService/Miravel/BsAudioWaveExtractWrapper")
// and writes lines with the fully qualified function name:
//     ZOR_LOG(IBsLogger::Info, "ZOR::BsAudioWaveExtractWrapper::queryAudioWave", "append token:%lld", t);
// Nothing is formatted, and no argument is evaluated, when no logger is set up
// or the severity is off.
#define ZOR_LOG_SOURCE(path)                                          \
    namespace {                                                       \
    [[maybe_unused]] constexpr const char kZorLogSourceFile[] = path; \
    }

#define ZOR_LOG(severity, function, ...)                                                                    \
    do {                                                                                                    \
        if (::ZOR::ZorLoggerWrapper* zorLogWrapper_ = ::ZOR::loggerWrapper(0)) {                            \
            const auto zorLogSeverity_ = static_cast<::ZOR::IBsLogger::Severity>(severity);                 \
            if (zorLogWrapper_->testSeverity(zorLogSeverity_)) {                                            \
                zorLogWrapper_->createLogStream(zorLogSeverity_, kZorLogSourceFile, __LINE__, function, "") \
                    .format(__VA_ARGS__);                                                                   \
            }                                                                                               \
        }                                                                                                   \
    } while (false)

// A line whose text is built with a string stream (pointers and booleans as
// the stream prints them): ZOR_LOG_STREAM(IBsLogger::Info, "ZOR::A::b", "isCaching: " << flag);
#define ZOR_LOG_STREAM(severity, function, streamed)                                                          \
    do {                                                                                                      \
        if (::ZOR::ZorLoggerWrapper* zorLogWrapper_ = ::ZOR::loggerWrapper(0)) {                              \
            const auto zorLogSeverity_ = static_cast<::ZOR::IBsLogger::Severity>(severity);                   \
            if (zorLogWrapper_->testSeverity(zorLogSeverity_)) {                                              \
                std::ostringstream zorLogText_;                                                               \
                zorLogText_ << streamed;                                                                      \
                zorLogWrapper_->createLogStream(zorLogSeverity_, kZorLogSourceFile, __LINE__, function, "") & \
                    std::move(zorLogText_);                                                                   \
            }                                                                                                 \
        }                                                                                                     \
    } while (false)

namespace ZOR {

// ---------------------------------------------------------------------------
// Text

// printf-style formatting into a std::string; an invalid format gives "".
inline std::string string_sprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));
inline std::string string_sprintf(const char* format, ...) {
    if (format == nullptr) return {};
    char small[256];
    va_list args;
    va_start(args, format);
    const int needed = std::vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (needed < 0) return {};
    if (static_cast<size_t>(needed) < sizeof small) return std::string(small, static_cast<size_t>(needed));
    std::string text(static_cast<size_t>(needed), '\0');
    va_start(args, format);
    std::vsnprintf(text.data(), text.size() + 1, format, args);
    va_end(args);
    return text;
}

// ---------------------------------------------------------------------------
// Reference counting

// The counter block: shared by an object and its weak holders, and outliving
// the object while weak holders remain. Both counts start at -1 ("never
// referenced").
struct RefCntBlock {
    std::atomic<int32_t> strong{-1};
    std::atomic<int32_t> weak{-1};

    // The increment rule shared by AddRef and the weak increment: -1 becomes 1;
    // 0 (dead) stays 0 and the object is never revived; otherwise add 1 and
    // undo it when the field was 0 by the time the add happened.
    static int32_t increment(std::atomic<int32_t>& field) noexcept {
        const int32_t seen = field.load(std::memory_order_relaxed);
        if (seen == -1) {
            field.exchange(1, std::memory_order_acq_rel);
            return 1;
        }
        if (seen == 0) return 0;
        const int32_t before = field.fetch_add(1, std::memory_order_relaxed);
        if (before == 0) {
            field.exchange(0, std::memory_order_acq_rel);
            return 0;
        }
        return before + 1;
    }

    // Drops one weak reference; frees the block when that was the last one and
    // the object is dead. Returns the new weak count.
    static int32_t weakRelease(RefCntBlock* block) noexcept {
        if (block == nullptr) return 0;
        if (block->weak.load(std::memory_order_relaxed) <= 0) return 0;
        const int32_t before = block->weak.fetch_add(-1, std::memory_order_acq_rel);
        if (before <= 0) {
            block->weak.exchange(0, std::memory_order_acq_rel);
            return 0;
        }
        const int32_t now = before - 1;
        // Freed at a strong count of 0, and also at -1: an object destroyed
        // without ever being counted (a Release of a fresh object, or a plain
        // delete) leaves -1, and freeing only at 0 would leak its block.
        if (now == 0 && block->strong.load(std::memory_order_acquire) <= 0) delete block;
        return now;
    }
};

template <class T = void>
class RefCnt;

// Intrusive, thread-safe counting with a weak count and a release notifier.
// A concrete class derives from RefCnt<void> first (non-virtually) and from its
// interfaces virtually, and overrides the five counting operations with
// ZOR_IMPLEMENT_REFCNT so that one overrider serves both tables.
//
// No lock: every change is one atomic operation on the counter block, the
// destroyed flag or the notifier slot, so all of these may be called from any
// thread at once.
template <>
class RefCnt<void> {
public:
    RefCnt() : block_(new RefCntBlock) {
        // The object holds one weak reference on its own block until it dies.
        RefCntBlock::increment(block_->weak);
    }
    RefCnt(const RefCnt&) = delete;
    RefCnt& operator=(const RefCnt&) = delete;

    virtual int32_t AddRef() {
        if (block_ == nullptr) return 0;
        return RefCntBlock::increment(block_->strong);
    }

    virtual int32_t Release() {
        RefCntBlock* const block = block_;
        if (block == nullptr) return 0;
        int32_t result = 0;
        if (block->strong.load(std::memory_order_relaxed) > 0) {
            const int32_t before = block->strong.fetch_add(-1, std::memory_order_acq_rel);
            if (before <= 0) {
                block->strong.exchange(0, std::memory_order_acq_rel);
            } else {
                result = before - 1;
                if (result != 0) return result;
            }
        }
        // Destruction, at most once.
        if (destroyed_.load(std::memory_order_acquire)) return result;
        if (destroyed_.exchange(true, std::memory_order_acq_rel)) return result;
        if (IDmReleaseNotifier* notifier = notifier_.load(std::memory_order_acquire)) notifier->onObjectReleasing();
        delete this;
        return 0;
    }

    virtual int32_t refCount() { return block_ == nullptr ? 0 : block_->strong.load(std::memory_order_relaxed); }

    virtual IDmReleaseNotifier* releaseNotifier() { return notifier_.load(std::memory_order_acquire); }

    virtual IDmReleaseNotifier* setReleaseNotifier(IDmReleaseNotifier* notifier) {
        return notifier_.exchange(notifier, std::memory_order_acq_rel);
    }

    virtual ~RefCnt() {
        RefCntBlock::weakRelease(block_);
        block_ = nullptr;
    }

    // The counter block, for weak holders; null only in a destroyed object.
    RefCntBlock* counterBlock() const noexcept { return block_; }

private:
    RefCntBlock* block_;
    std::atomic<bool> destroyed_{false};
    std::atomic<IDmReleaseNotifier*> notifier_{nullptr};
};

// The five counting overriders of a concrete class; each serves the RefCnt<void>
// table and the IDmBaseObj part of every interface table of the class.
#define ZOR_IMPLEMENT_REFCNT                                                                                 \
    int32_t AddRef() override { return ::ZOR::RefCnt<void>::AddRef(); }                                      \
    int32_t Release() override { return ::ZOR::RefCnt<void>::Release(); }                                    \
    int32_t refCount() override { return ::ZOR::RefCnt<void>::refCount(); }                                  \
    ::ZOR::IDmReleaseNotifier* releaseNotifier() override { return ::ZOR::RefCnt<void>::releaseNotifier(); } \
    ::ZOR::IDmReleaseNotifier* setReleaseNotifier(::ZOR::IDmReleaseNotifier* notifier) override {            \
        return ::ZOR::RefCnt<void>::setReleaseNotifier(notifier);                                            \
    }

// The query by name of a class with one public interface: the interface's own
// name, then "IDmBaseObj", both answered with the interface pointer (which is
// also its IDmBaseObj); every other name with null.
inline void* zorQueryInterface(const char* name, const char* interfaceName, void* interfacePointer) {
    if (name == nullptr) return nullptr;
    if (std::strcmp(name, interfaceName) == 0) return interfacePointer;
    if (std::strcmp(name, "IDmBaseObj") == 0) return interfacePointer;
    return nullptr;
}

// What every exported factory does: allocate (a failed allocation throws out of
// the factory), construct, add the caller's reference, hand out the interface.
template <class Concrete, class Interface>
Interface* zorCreateObject() {
    Concrete* object = new Concrete();
    object->AddRef();
    return static_cast<Interface*>(object);
}

// ---------------------------------------------------------------------------
// Owning reference

// One reference to a reference-counted object, released when the holder goes:
// the one way the library, the host, the command line and the tests hold an
// object for a scope or as a member. T is anything reached as IDmBaseObj
// (IDmClip, a task interface, a list). Copies add a reference each; moves
// take it over. Not thread-safe as an object (like std::shared_ptr itself):
// one holder is used by one thread at a time, while the object it holds may
// be shared freely.
template <class T>
class ZorRef {
public:
    ZorRef() noexcept = default;
    ZorRef(std::nullptr_t) noexcept {}  // NOLINT(google-explicit-constructor): an empty holder

    // Takes over a reference the caller owns (a factory's result, say).
    static ZorRef adopt(T* object) noexcept {
        ZorRef held;
        held.object_ = object;
        return held;
    }
    // Adds a reference of its own; empty when object is null or already dead
    // (its AddRef gives 0).
    static ZorRef share(T* object) noexcept {
        ZorRef held;
        if (object != nullptr && base(object)->AddRef() > 0) held.object_ = object;
        return held;
    }

    ZorRef(const ZorRef& other) noexcept : object_(other.object_) {
        if (object_ != nullptr) base(object_)->AddRef();
    }
    ZorRef(ZorRef&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    ZorRef& operator=(ZorRef other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~ZorRef() { reset(); }

    // Releases what is held and holds adopted instead (taking over its
    // reference).
    void reset(T* adopted = nullptr) noexcept {
        T* old = std::exchange(object_, adopted);
        if (old != nullptr) base(old)->Release();
    }
    // Gives up the reference without releasing it, to a caller that takes it
    // over.
    [[nodiscard]] T* detach() noexcept { return std::exchange(object_, nullptr); }

    T* get() const noexcept { return object_; }
    T* operator->() const noexcept { return object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }
    friend bool operator==(const ZorRef& held, std::nullptr_t) noexcept { return held.object_ == nullptr; }

private:
    static IDmBaseObj* base(T* object) noexcept { return static_cast<IDmBaseObj*>(object); }

    T* object_ = nullptr;
};

// ---------------------------------------------------------------------------
// Weak holder

// A non-owning reference to an object that answers queryInterface("RefCnt")
// with its RefCnt<void>. It keeps the object's counter block alive, so it can
// tell whether the object is still alive and try to take a reference on it.
template <class T>
class RefCntWeakHolder {
public:
    RefCntWeakHolder() noexcept = default;

    // Throws std::runtime_error "obj must implement the Query interface." when
    // the object does not answer "RefCnt", and "obj must be AddRef." when it is
    // not alive (strong count below 1). A null object gives an empty holder.
    explicit RefCntWeakHolder(T* object) {
        if (object == nullptr) return;
        auto* counted = static_cast<RefCnt<void>*>(object->queryInterface("RefCnt"));
        if (counted == nullptr) throw std::runtime_error("obj must implement the Query interface.");
        RefCntBlock* block = counted->counterBlock();
        if (block != nullptr && block->strong.load(std::memory_order_acquire) < 1)
            throw std::runtime_error("obj must be AddRef.");
        object_ = object;
        if (block != nullptr) {
            RefCntBlock::increment(block->weak);
            block_ = block;
        }
    }

    RefCntWeakHolder(const RefCntWeakHolder& other) noexcept : object_(other.object_) {
        if (other.block_ != nullptr && RefCntBlock::increment(other.block_->weak) > 0) block_ = other.block_;
    }
    RefCntWeakHolder(RefCntWeakHolder&& other) noexcept
        : object_(std::exchange(other.object_, nullptr)), block_(std::exchange(other.block_, nullptr)) {}
    RefCntWeakHolder& operator=(RefCntWeakHolder other) noexcept {
        std::swap(object_, other.object_);
        std::swap(block_, other.block_);
        return *this;
    }
    ~RefCntWeakHolder() { reset(); }

    void reset() noexcept {
        RefCntBlock::weakRelease(std::exchange(block_, nullptr));
        object_ = nullptr;
    }

    // The object pointer as given; it dangles once the object is dead.
    T* get() const noexcept { return object_; }
    RefCntBlock* counterBlock() const noexcept { return block_; }

    // True when there is no counter block or the object is dead.
    bool expired() const noexcept { return block_ == nullptr || block_->strong.load(std::memory_order_acquire) <= 0; }

    // AddRef through the block: the new strong count, or 0 when the object is
    // dead (it is never revived). On success the caller owns the reference and
    // gives it back with the object's Release().
    int32_t tryAddRef() const noexcept { return block_ == nullptr ? 0 : RefCntBlock::increment(block_->strong); }

    // The object with one reference taken for the caller, or null when dead.
    T* lock() const noexcept { return tryAddRef() > 0 ? object_ : nullptr; }

private:
    T* object_ = nullptr;
    RefCntBlock* block_ = nullptr;
};

// ---------------------------------------------------------------------------
// Callback registration lists

// The registered callbacks of interface I, in registration order, each once.
// Registration takes no reference: a callback stays alive until its
// removeCallBack() has returned. Notification calls every callback with the
// list's mutex held: callbacks are never called at the same time by one list,
// and a removeCallBack() that returns guarantees the callback is not being
// called and will not be called again. Hence a callback must not add or remove
// callbacks of the list that is notifying it.
template <class I>
class BaseCallBack {
public:
    BaseCallBack() = default;
    BaseCallBack(const BaseCallBack&) = delete;
    BaseCallBack& operator=(const BaseCallBack&) = delete;
    virtual ~BaseCallBack() = default;

    // 1001 for null; otherwise 0, whether added or already there.
    int32_t addCallBack(I* callback) {
        if (callback == nullptr) return kResultFailure;
        std::lock_guard<std::mutex> lock(callbackLock_);
        for (I* registered : callbacks_)
            if (registered == callback) return 0;
        callbacks_.push_back(callback);
        return 0;
    }

    // 1001 for null; otherwise 0, whether or not it was registered.
    int32_t removeCallBack(I* callback) {
        if (callback == nullptr) return kResultFailure;
        std::lock_guard<std::mutex> lock(callbackLock_);
        callbacks_.remove(callback);
        return 0;
    }

protected:
    // Calls call(I*) for every callback, head to tail, with the list's mutex
    // held. Results are ignored; an exception propagates after the unlock.
    template <class Call>
    void notifyCallBacks(Call&& call) {
        std::lock_guard<std::mutex> lock(callbackLock_);
        for (I* callback : callbacks_) call(callback);
    }

    size_t callBackCount() const {
        std::lock_guard<std::mutex> lock(callbackLock_);
        return callbacks_.size();
    }

private:
    std::list<I*> callbacks_;          // guarded by callbackLock_
    mutable std::mutex callbackLock_;  // innermost: the owner holds no other lock of its own
                                       // while notifying
};

// ---------------------------------------------------------------------------
// Scoped cost timer

// Writes one "performance" line when its scope took at least thresholdMs
// milliseconds: "<name> cost <ms> milliSecond.", or "Cost<ms> milliSecond." for
// an empty name (no blank after "Cost": the established text, which log
// readers match on). Whether it times at all is decided once, at construction.
class ScopeTimeSpan {
public:
    static constexpr const char* kSourceFile = "Include/Common/ZorInternalComUtility";
    static constexpr int kSourceLine = 56;
    static constexpr const char* kFunction = "ZOR::ScopeTimeSpan::~ScopeTimeSpan";
    static constexpr const char* kTag = "performance";

    ScopeTimeSpan(std::string name, bool enable, int64_t thresholdMs, IBsLogger::Severity severity)
        : name_(std::move(name)), threshold_(thresholdMs), active_(false), severity_(severity) {
        if (enable) {
            ZorLoggerWrapper* wrapper = loggerWrapper(0);
            active_ = wrapper != nullptr && wrapper->testSeverity(severity_);
        }
        if (active_) timer_.start();
    }
    ScopeTimeSpan(const ScopeTimeSpan&) = delete;
    ScopeTimeSpan& operator=(const ScopeTimeSpan&) = delete;

    ~ScopeTimeSpan() {
        if (!active_) return;
        const int64_t elapsed = timer_.end().timeSpan();
        if (elapsed < threshold_) return;
        ZorLoggerWrapper* wrapper = loggerWrapper(0);
        if (wrapper == nullptr || !wrapper->testSeverity(severity_)) return;
        std::ostringstream text;
        if (!name_.empty())
            text << name_ << " cost ";
        else
            text << "Cost";
        text << elapsed << " milliSecond.";
        wrapper->createLogStream(severity_, kSourceFile, kSourceLine, kFunction, kTag) & std::move(text);
    }

    bool active() const { return active_; }

private:
    std::string name_;
    TimeSpan timer_;
    int64_t threshold_;
    bool active_;
    IBsLogger::Severity severity_;
};

}  // namespace ZOR
