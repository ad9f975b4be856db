#include "support/plist/value.h"

#include <limits>

namespace netvane::plist {

Dictionary::Dictionary(std::initializer_list<Entry> entries) : entries_(entries) {}

void Dictionary::set(std::string key, Value value) {
    if (Value* existing = find(key)) {
        *existing = std::move(value);
        return;
    }
    entries_.emplace_back(std::move(key), std::move(value));
}

void Dictionary::append(std::string key, Value value) { entries_.emplace_back(std::move(key), std::move(value)); }

Dictionary::Entry& Dictionary::appendEmpty() { return entries_.emplace_back(); }

const Value* Dictionary::find(std::string_view key) const {
    for (auto it = entries_.rbegin(); it != entries_.rend(); ++it) {
        if (it->first == key) return &it->second;
    }
    return nullptr;
}

Value* Dictionary::find(std::string_view key) {
    return const_cast<Value*>(static_cast<const Dictionary*>(this)->find(key));
}

bool Dictionary::operator==(const Dictionary& other) const { return entries_ == other.entries_; }

Value::Value(unsigned long long i) {
    if (i <= static_cast<unsigned long long>(std::numeric_limits<std::int64_t>::max())) {
        storage_ = static_cast<std::int64_t>(i);
    } else {
        storage_ = static_cast<std::uint64_t>(i);
    }
}

std::optional<bool> Value::boolean() const {
    if (auto* b = get<bool>()) return *b;
    return std::nullopt;
}

std::optional<double> Value::real() const {
    if (auto* d = get<double>()) return *d;
    return std::nullopt;
}

std::optional<netvane::Date> Value::date() const {
    if (auto* d = get<netvane::Date>()) return *d;
    return std::nullopt;
}

std::optional<std::int64_t> Value::int64() const {
    if (auto* i = get<std::int64_t>()) return *i;
    return std::nullopt;
}

std::optional<std::uint64_t> Value::uint64() const {
    if (auto* i = get<std::int64_t>(); i && *i >= 0) return static_cast<std::uint64_t>(*i);
    if (auto* u = get<std::uint64_t>()) return *u;
    return std::nullopt;
}

const Value* Value::find(std::string_view key) const {
    auto* dict = dictionary();
    return dict ? dict->find(key) : nullptr;
}

}  // namespace netvane::plist
