// A fresh directory under /tmp for one test, removed with everything in it
// when the test ends.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace netvane::testing {

class TemporaryDirectory {
public:
    explicit TemporaryDirectory(const std::string& prefix = "netvane-test") {
        std::string pattern = "/tmp/" + prefix + "-XXXXXX";
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace netvane::testing
