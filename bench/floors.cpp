#include "floors.h"

#include <array>
#include <cstdio>
#include <stdexcept>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

void require(bool condition, const char* what)
{
    if (!condition)
        throw std::runtime_error(std::string("floor: ") + what + " failed");
}

} // namespace

std::size_t readFile(const char* fileName)
{
    const int file = ::open(fileName, O_RDONLY | O_CLOEXEC);
    require(file >= 0, "open");
    struct stat status = {};
    std::array<char, 4096> buffer; // NOLINT: filled by read()
    require(::fstat(file, &status) == 0, "fstat");
    const ssize_t size = ::read(file, buffer.data(), buffer.size());
    require(size == status.st_size, "read");
    ::close(file);
    return std::size_t(size);
}

int listDirectory(const char* directory)
{
    DIR* stream = ::opendir(directory);
    require(stream != nullptr, "opendir");
    int readable = 0;
    while (const dirent* entry = ::readdir(stream)) {
        if (::faccessat(::dirfd(stream), entry->d_name, R_OK, 0) == 0)
            ++readable;
    }
    ::closedir(stream);
    return readable;
}

void replaceFile(const std::string& directory, const std::string& name, const std::string& text)
{
    const std::string target = directory + "/" + name;
    const std::string temporary = directory + "/." + name;
    const int file =
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, S_IRUSR | S_IWUSR);
    require(file >= 0, "open");
    require(::write(file, text.data(), text.size()) == ssize_t(text.size()), "write");
    require(::fsync(file) == 0, "fsync");
    ::close(file);
    require(std::rename(temporary.c_str(), target.c_str()) == 0, "rename");
}
