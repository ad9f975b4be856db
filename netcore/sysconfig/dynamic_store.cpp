#include "netcore/sysconfig/dynamic_store.h"

#include <algorithm>
#include <thread>

namespace netvane {
namespace {

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

std::shared_ptr<regex_t> compileAnchored(const std::string& pattern) {
    auto compiled = std::make_unique<regex_t>();
    const std::string anchored = "^(" + pattern + ")$";
    // A failed regcomp leaves nothing to free.
    if (::regcomp(compiled.get(), anchored.c_str(), REG_EXTENDED | REG_NOSUB) != 0) return nullptr;
    return std::shared_ptr<regex_t>(compiled.release(), [](regex_t* r) {
        ::regfree(r);
        delete r;
    });
}

}  // namespace

std::string literalPrefix(std::string_view pattern) {
    if (pattern.find('|') != std::string_view::npos) return "";  // alternatives start anywhere
    std::string prefix;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        const char c = pattern[i];
        if (std::string_view(".[]()*+?{}^$\\").find(c) == std::string_view::npos) {
            prefix += c;
            continue;
        }
        // A quantifier that allows zero repeats makes the character before it optional.
        if ((c == '*' || c == '?' || c == '{') && !prefix.empty()) prefix.pop_back();
        break;
    }
    return prefix;
}

KeyMatcher::KeyMatcher(std::vector<std::string> keys, const std::vector<std::string>& patterns)
    : keys_(std::move(keys)) {
    for (const std::string& pattern : patterns) {
        patterns_.push_back(Pattern{compileAnchored(pattern), literalPrefix(pattern)});
    }
}

bool KeyMatcher::matches(std::string_view key) const {
    if (std::find(keys_.begin(), keys_.end(), key) != keys_.end()) return true;
    const std::string text(key);
    return std::any_of(patterns_.begin(), patterns_.end(), [&](const Pattern& pattern) {
        return pattern.compiled && startsWith(text, pattern.literalPrefix) &&
               ::regexec(pattern.compiled.get(), text.c_str(), 0, nullptr, 0) == 0;
    });
}

bool KeyMatcher::mayMatchUnder(std::string_view prefix) const {
    for (const std::string& key : keys_) {
        if (startsWith(key, prefix)) return true;
    }
    return std::any_of(patterns_.begin(), patterns_.end(), [&](const Pattern& pattern) {
        return pattern.compiled &&
               (startsWith(prefix, pattern.literalPrefix) || startsWith(pattern.literalPrefix, prefix));
    });
}

void NotificationDelivery::attach(std::shared_ptr<SerialQueue> queue) {
    MutexLock lock(mutex_);
    queue_ = std::move(queue);
    ++generation_;
}

void NotificationDelivery::detach() {
    MutexLock lock(mutex_);
    queue_.reset();
    ++generation_;
    // A callback that detaches from inside itself would wait for itself.
    if (running_ && runner_ == std::this_thread::get_id()) return;
    while (running_) lock.wait(idle_);
}

bool NotificationDelivery::attached() const {
    MutexLock lock(mutex_);
    return queue_ != nullptr;
}

void NotificationDelivery::post(plist::Value changedKeys) {
    std::shared_ptr<SerialQueue> queue;
    std::uint64_t generation = 0;
    {
        MutexLock lock(mutex_);
        if (!queue_) return;
        queue = queue_;
        generation = generation_;
    }
    queue->async([self = shared_from_this(), generation, keys = std::move(changedKeys)] {
        self->deliver(generation, keys);
    });
}

void NotificationDelivery::deliver(std::uint64_t generation, const plist::Value& changedKeys) {
    {
        MutexLock lock(mutex_);
        // A batch queued before a detach (or before re-attaching elsewhere) is stale.
        if (generation != generation_ || !queue_) return;
        running_ = true;
        runner_ = std::this_thread::get_id();
    }
    if (callback_) callback_(&changedKeys);
    MutexLock lock(mutex_);
    running_ = false;
    idle_.notify_all();
}

}  // namespace netvane
