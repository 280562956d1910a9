#include "bridge/BridgeText.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tb {

std::vector<char> read_file(const std::string &path)
{
    std::vector<char> bytes;
    FILE *file = std::fopen(path.c_str(), "rb");
    if (!file)
        return bytes;
    struct stat info{};
    if (fstat(fileno(file), &info) == 0 && info.st_size > 0) {
        bytes.resize(static_cast<size_t>(info.st_size));
        if (std::fread(bytes.data(), 1, bytes.size(), file) != bytes.size())
            bytes.clear();
    }
    std::fclose(file);
    return bytes;
}

bool write_file(const std::string &path, const std::vector<char> &bytes, int *error)
{
    const std::string tmp = path + ".tmp";
    int failure = 0;
    const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        failure = errno;
    } else {
        size_t written = 0;
        while (!failure && written < bytes.size()) {
            const ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
            if (n < 0 && errno != EINTR)
                failure = errno;
            else if (n > 0)
                written += static_cast<size_t>(n);
        }
        // Without the flush a crash after the rename could leave an empty file in the old one's
        // place, which is worse than the old content.
        if (!failure && ::fsync(fd) != 0)
            failure = errno;
        if (::close(fd) != 0 && !failure)
            failure = errno;
        if (!failure && std::rename(tmp.c_str(), path.c_str()) != 0)
            failure = errno;
        if (failure)
            std::remove(tmp.c_str());
    }
    if (error)
        *error = failure;
    return failure == 0;
}

bool write_file(const std::string &path, const std::string &text, int *error)
{
    return write_file(path, std::vector<char>(text.begin(), text.end()), error);
}

const char *write_error_text(int error)
{
    switch (error) {
    case ENOSPC: return "нет места на диске";
    case EDQUOT: return "превышена дисковая квота";
    case EROFS: return "диск доступен только для чтения";
    case EACCES:
    case EPERM: return "нет прав на запись";
    case EIO: return "ошибка ввода-вывода";
    default: return "ошибка записи";
    }
}

std::vector<std::string> lines(const char *text)
{
    std::vector<std::string> result;
    if (!text)
        return result;
    const char *p = text;
    while (*p) {
        const char *end = std::strchr(p, '\n');
        if (!end)
            end = p + std::strlen(p);
        const char *b = p;
        const char *e = end;
        while (b < e && (*b == ' ' || *b == '\t' || *b == '\r'))
            ++b;
        while (e > b && (e[-1] == ' ' || e[-1] == '\t' || e[-1] == '\r'))
            --e;
        if (e > b)
            result.emplace_back(b, e);
        p = *end ? end + 1 : end;
    }
    return result;
}

std::map<std::string, std::string> options(const char *text)
{
    std::map<std::string, std::string> result;
    if (!text)
        return result;
    // Not through lines(): its trimming would cut the blanks a value may end in, and a save
    // path or a proxy password that ends in a blank is another path or password without it.
    const char *p = text;
    while (*p) {
        const char *end = std::strchr(p, '\n');
        if (!end)
            end = p + std::strlen(p);
        std::string_view line(p, static_cast<size_t>(end - p));
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        const size_t start = line.find_first_not_of(" \t");
        const size_t eq = line.find('=');
        if (start != std::string_view::npos && eq != std::string_view::npos)
            result[std::string(line.substr(start, eq - start))] = std::string(line.substr(eq + 1));
        p = *end ? end + 1 : end;
    }
    return result;
}

char *dup(const std::string &text)
{
    char *copy = static_cast<char *>(std::malloc(text.size() + 1));
    if (!copy)
        return nullptr;
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

} // namespace tb
