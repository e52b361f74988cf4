#include "lab/phone/tree.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>

#include "lab/base.h"

namespace fs = std::filesystem;

namespace rvd::lab {

namespace {

bool write_whole(int directory, const std::string& name, const std::string& content) {
    const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC;
    const int fd = openat(directory, name.c_str(), flags, 0644);
    if (fd < 0) return false;
    const bool written =
            write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    return close(fd) == 0 && written;
}

}  // namespace

int Tree::open_directory(const std::string& inside) const {
    const int root = open(root_.c_str(), O_PATH | O_CLOEXEC);
    open_how how{};
    how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    const auto fd = static_cast<int>(syscall(SYS_openat2, root, inside.c_str(), &how, sizeof(how)));
    const int error = errno;
    close(root);
    errno = error;
    return fd;
}

// Hands the action the directory that the last part of the path is in, and that part's name.
template <class Action>
void Tree::at(const std::string& inside, const Action& action) const {
    const std::string bare = inside.back() == '/' ? inside.substr(0, inside.size() - 1) : inside;
    const size_t slash = bare.rfind('/');
    const int directory = open_directory(slash == 0 ? "/" : bare.substr(0, slash));
    const bool done = directory >= 0 && action(directory, bare.substr(slash + 1));
    const int error = errno;
    close(directory);
    errno = error;
    if (!done) fail_errno("the phone's " + inside);
}

void Tree::make_directory(const std::string& inside) const {
    for (size_t end = inside.find('/', 1);; end = inside.find('/', end + 1)) {
        at(inside.substr(0, end), [](int directory, const std::string& name) {
            return name.empty() || mkdirat(directory, name.c_str(), 0755) == 0 || errno == EEXIST;
        });
        if (end == inside.npos) return;
    }
}

void Tree::write(const std::string& inside, const std::string& content) const {
    at(inside, [&](int directory, const std::string& name) {
        const std::string draft = name + ".new";
        return write_whole(directory, draft, content) &&
               renameat(directory, draft.c_str(), directory, name.c_str()) == 0;
    });
}

void Tree::remove(const std::string& inside) const {
    const std::string parent = fs::path(inside).parent_path();
    const int above = open_directory(parent);
    close(above);
    if (above < 0) return;  // not even its directory is there
    at(inside, [](int directory, const std::string& name) {
        std::error_code error;
        fs::remove_all(fmt::format("/proc/self/fd/{}/{}", directory, name), error);
        errno = error.value();
        return !error;
    });
}

void Tree::own(const std::string& inside, uid_t owner) const {
    at(inside, [&](int directory, const std::string& name) {
        return fchownat(directory, name.c_str(), owner, owner, AT_SYMLINK_NOFOLLOW) == 0;
    });
}

}  // namespace rvd::lab
