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

namespace rvd::lab {

namespace {

// The last part of a path beneath a root, while the directory that it is in is held open.
class Place {
  public:
    Place(const std::string& root, const std::string& inside) : inside_(inside) {
        const std::string bare = inside.substr(0, inside.find_last_not_of('/') + 1);
        const size_t slash = bare.rfind('/');
        const std::string above = slash == 0 || slash == bare.npos ? "/" : bare.substr(0, slash);
        const int top = open(root.c_str(), O_PATH | O_CLOEXEC);
        open_how how{};
        how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
        how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
        fd_ = static_cast<int>(syscall(SYS_openat2, top, above.c_str(), &how, sizeof(how)));
        error_ = fd_ < 0 ? errno : 0;
        close(top);
        path_ = fmt::format("/proc/self/fd/{}/{}", fd_, bare.substr(slash + 1));
    }
    ~Place() { close(fd_); }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    bool exists() const { return fd_ >= 0; }
    const char* path() const { return path_.c_str(); }

    void must(bool done) const {
        if (error_ != 0) errno = error_;
        if (!exists() || !done) fail_errno("the phone's " + inside_);
    }

  private:
    const std::string inside_;
    int fd_, error_;
    std::string path_;
};

}  // namespace

void Tree::make_directory(const std::string& inside) const {
    for (size_t end = 0; end != inside.npos;) {
        end = inside.find('/', end + 1);
        const Place place(root_, inside.substr(0, end));
        place.must(mkdir(place.path(), 0755) == 0 || errno == EEXIST);
    }
}

void Tree::write(const std::string& inside, const std::string& content) const {
    const Place place(root_, inside);
    place.must(replace_file(place.path(), content));
}

void Tree::remove(const std::string& inside) const {
    const Place place(root_, inside);
    std::error_code error;
    if (!place.exists()) return;  // not even its directory is there
    std::filesystem::remove_all(place.path(), error);
    errno = error.value();
    place.must(!error);
}

void Tree::own(const std::string& inside, uid_t owner) const {
    const Place place(root_, inside);
    place.must(lchown(place.path(), owner, owner) == 0);
}

}  // namespace rvd::lab
