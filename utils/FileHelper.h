#pragma once

#include <string>
#include <string_view>
#include <vector>

// Small helpers around files and paths. Failures that are logged say so; none throws.
class FileHelper {
 public:
    static bool exist(const char* path);
    static bool exist(const std::string& path);

    // Reads up to `size` bytes. A short read or write is logged and still true.
    static bool readFile(const char* path, unsigned long size, char* buffer);
    static bool writeFile(const char* path, unsigned long size, const char* buffer);
    // The whole file in a fresh malloc block that the caller frees; null on failure, with an ERROR.
    static char* readFile(const char* path, unsigned long* size);
    static char* readFile(const std::string& path, unsigned long* size);

    static std::string getTempDirectoryPath();
    static std::string getFileName(const std::string& path);
    // The last component less its extension.
    static std::string getFileNameStem(const std::string& path);
    // 0 if the file does not open.
    static unsigned long getFileSize(const std::string& path);
    // A regular file itself, or the regular files of a directory; otherwise nothing.
    static std::vector<std::string> getFiles(const std::string& path);
    static bool isFile(const std::string& path);
    static bool isDirectory(const std::string& path);
    static bool createDirectories(const std::string& path);
    static bool isAbsolutePath(const std::string& path);
    template <class... Parts>
    static std::string joinPath(const Parts&... parts) {
        return joinParts({std::string_view(parts)...});
    }
    static std::string getDirectoryOfExecuteFile();
    // $HOME; may be null.
    static const char* getHome();

    // False with errno EINVAL for no path, a missing file or a bad descriptor. A negative mode and
    // a null group change nothing. The user is accepted and has no effect.
    static bool changeFileMode(const char* path, int mode);
    static bool changeFileOwner(const char* path, const char* user, const char* group);
    static bool changeFileDesMode(int fd, int mode);
    static bool changeFileDesOwner(int fd, const char* user, const char* group);
    // Owner, then mode; an empty user or group is left as it is. The outcome is logged.
    static bool updateAccessAttribute(int fd, const std::string& group, const std::string& user,
                                      int mode);
    static bool updateAccessAttribute(const std::string& path, const std::string& group,
                                      const std::string& user, int mode);
    static bool updateAccessAttribute(const char* path, const std::string& group,
                                      const std::string& user, int mode);

 private:
    static std::string joinParts(std::initializer_list<std::string_view> parts);
};
