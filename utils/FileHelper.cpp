#include "utils/FileHelper.h"

#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>

#include "utils/Log.h"

namespace fs = boost::filesystem;

bool FileHelper::exist(const std::string& path) { return !path.empty() && exist(path.c_str()); }

// A short file is no failure: the rest of the buffer stays as it was.
bool FileHelper::readFile(const char* path, unsigned long size, char* buffer) {
    if (path == nullptr || size == 0 || buffer == nullptr) return false;
    std::ifstream file(path, std::ios::binary);
    if (!file) return false;
    file.read(buffer, static_cast<std::streamsize>(size));
    if (static_cast<unsigned long>(file.gcount()) != size) {
        LOG_WARN("read %ld of %lu bytes", file.gcount(), size);
    }
    return true;
}

bool FileHelper::writeFile(const char* path, unsigned long size, const char* buffer) {
    if (path == nullptr || size == 0 || buffer == nullptr) return false;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path, "wb"),
                                                               &std::fclose);
    if (!file) return false;
    (void)std::setvbuf(file.get(), nullptr, _IONBF, 0);  // so that the count is what was written
    const size_t written = std::fwrite(buffer, 1, size, file.get());
    if (written != size) LOG_WARN("wrote %lu of %lu bytes", written, size);
    return true;
}

// The block comes from malloc(), as those of messages do, so that one owner type fits both.
char* FileHelper::readFile(const char* path, unsigned long* size) {
    // Only a regular file has a size to trust; opening a FIFO would wait for its writer.
    const bool regular = path != nullptr && size != nullptr && isFile(path);
    std::ifstream file(regular ? path : "", std::ios::binary | std::ios::ate);
    if (!file) {
        LOG_ERROR("failed to open file %s", path);
        return nullptr;
    }
    *size = static_cast<unsigned long>(file.tellg());
    // An empty file still gives a block: null is the sign of failure.
    char* block = static_cast<char*>(std::malloc(*size + 1));
    file.seekg(0);
    if (block == nullptr || !file.read(block, static_cast<std::streamsize>(*size))) {
        LOG_ERROR("failed to read file %s with %d bytes", path, *size);
        std::free(block);
        return nullptr;
    }
    return block;
}

char* FileHelper::readFile(const std::string& path, unsigned long* size) {
    return readFile(path.c_str(), size);
}

std::string FileHelper::getTempDirectoryPath() {
    boost::system::error_code error;
    const fs::path directory = fs::canonical(fs::temp_directory_path(error), error);
    return error ? "/tmp" : directory.string();
}

std::string FileHelper::getFileName(const std::string& path) {
    return fs::path(path).filename().string();
}

std::string FileHelper::getFileNameStem(const std::string& path) {
    return fs::path(path).stem().string();
}

unsigned long FileHelper::getFileSize(const std::string& path) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    return file ? static_cast<unsigned long>(file.tellg()) : 0;
}

// Without subdirectories. A file that is removed meanwhile is passed over.
std::vector<std::string> FileHelper::getFiles(const std::string& path) {
    if (isFile(path)) return {path};
    std::vector<std::string> files;
    boost::system::error_code error;
    for (fs::directory_iterator it(path, error), end; !error && it != end; it.increment(error)) {
        if (fs::is_regular_file(it->path(), error)) files.push_back(it->path().string());
    }
    return files;
}

bool FileHelper::isFile(const std::string& path) {
    try {
        return fs::is_regular_file(path);
    } catch (const std::exception& error) {
        LOG_ERROR("Error: isFile() failed: %s", error.what());
        return false;
    }
}

bool FileHelper::isDirectory(const std::string& path) {
    try {
        return fs::is_directory(path);
    } catch (const std::exception& error) {
        LOG_ERROR("Error: isDirectory() failed: %s", error.what());
        return false;
    }
}

bool FileHelper::createDirectories(const std::string& path) {
    try {
        return fs::create_directories(path);
    } catch (const std::exception& error) {
        LOG_ERROR("Error: createDirectories() failed: %s", error.what());
        return false;
    }
}

bool FileHelper::isAbsolutePath(const std::string& path) {
    return fs::path(path).has_root_directory();
}

std::string FileHelper::joinParts(std::initializer_list<std::string_view> parts) {
    fs::path joined;
    for (const std::string_view part : parts) joined /= std::string(part);
    return joined.string();
}

std::string FileHelper::getDirectoryOfExecuteFile() {
    boost::system::error_code error;
    return fs::read_symlink("/proc/self/exe", error).parent_path().string();
}

const char* FileHelper::getHome() { return std::getenv("HOME"); }
