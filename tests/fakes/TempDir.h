#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>

#include "utils/NonCopyable.h"

namespace kelm {

// A fresh directory, removed with what is in it at the end of the scope.
class TempDir : public NonCopyable {
 public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "kelm-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        m_path = pattern;
    }
    ~TempDir() {
        std::error_code ignored;  // a leftover directory is no reason to fail a test
        std::filesystem::remove_all(m_path, ignored);
    }

    const std::string& path() const { return m_path; }

    // Writes a file below the directory, making folders as needed; returns its path.
    std::string write(const std::string& name, const std::string& text) const {
        const std::filesystem::path file = std::filesystem::path(m_path) / name;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << text;
        return file.string();
    }

 private:
    std::string m_path;
};

// What stands in a file; nothing if it cannot be read.
inline std::string readText(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// An environment variable for a scope.
class ScopedEnv : public NonCopyable {
 public:
    ScopedEnv(const char* name, const std::string& value) : m_name(name) {
        if (const char* old = ::getenv(name)) m_old = std::string(old);
        ::setenv(name, value.c_str(), 1);
    }
    ~ScopedEnv() {
        ::unsetenv(m_name);
        if (m_old) ::setenv(m_name, m_old->c_str(), 1);
    }

 private:
    const char* m_name;
    std::optional<std::string> m_old;
};

}  // namespace kelm
