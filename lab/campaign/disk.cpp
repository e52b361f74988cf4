#include "lab/campaign/disk.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <utility>

namespace fs = std::filesystem;

namespace rvd::lab {

namespace {

constexpr size_t kSector = 512;
constexpr const char* kPlaces[] = {"/data", "/efs", "/mnt"};

bool is_synchronous(const std::string& fdinfo) {
    const std::string text = read_file(fdinfo);
    const size_t at = text.find("flags:");
    return at != text.npos && (strtoul(text.c_str() + at + 6, nullptr, 8) & O_SYNC) == O_SYNC;
}

}  // namespace

Disk::Disk(const Phone& phone) : phone_(phone) {
    flush_all();
}

bool Disk::holds(const std::string& path) {
    return std::any_of(std::begin(kPlaces), std::end(kPlaces), [&](const std::string& place) {
        return path.compare(0, place.size() + 1, place + "/") == 0;
    });
}

struct stat Disk::File::status() const {
    struct stat status {};
    if (fstat(handle.get(), &status) != 0) fail_errno("a file of the phone");
    return status;
}

std::string Disk::File::content() const {
    return read_file(handle.get());
}

Disk::File& Disk::keep(ScopedFd handle) {
    File file{std::move(handle), ""};
    return files_.try_emplace(file.status().st_ino, std::move(file)).first->second;
}

// The names there are now.
Disk::Names Disk::look() {
    Names names;
    for (const char* place : kPlaces) {
        for (const auto& entry : fs::recursive_directory_iterator(phone_.path(place))) {
            ScopedFd handle(open(entry.path().c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
            if (handle.valid())
                names[phone_.inside(entry.path())] = keep(std::move(handle)).status().st_ino;
        }
    }
    return names;
}

void Disk::flush_all() {
    names_ = look();
    for (auto& [inode, file] : files_)
        file.durable = file.content();
}

void Disk::call(const std::string& name, const std::string& path, pid_t daemon, int fd) {
    if (effect_) std::exchange(effect_, nullptr)();
    if (name == "sync") effect_ = [this] { flush_all(); };
    if (!holds(path) || (name != "fsync" && name != "write")) return;
    const auto shown = [&](const char* what) {
        return fmt::format("/proc/{}/{}/{}", daemon, what, fd);
    };
    if (name == "write" && !is_synchronous(shown("fdinfo"))) return;
    File& file = keep(ScopedFd(open(shown("fd").c_str(), O_PATH | O_CLOEXEC)));
    effect_ = [this, &file] { flush(file); };
}

// A directory's flush makes all changes of names before it durable, as they are in one journal.
void Disk::flush(File& file) {
    file.durable = file.content();
    if (S_ISDIR(file.status().st_mode)) names_ = look();
}

void Disk::cut(Unflushed survives, uint64_t seed) {
    effect_ = nullptr;
    random_.seed(seed);
    const Names names = look();
    // Of a part, all names: one whose content is missing does the most harm.
    rewrite(survives == Unflushed::nothing ? names_ : names, survives);
}

std::string Disk::surviving(const File& file, Unflushed survives) {
    const std::string now = file.content();
    if (survives == Unflushed::all) return now;
    if (survives == Unflushed::nothing || now == file.durable) return file.durable;
    std::string content = file.durable;
    if (now.size() < content.size() && random_() % 2 == 0) content.resize(now.size());
    for (size_t at = 0; at < now.size(); at += kSector) {
        if (random_() % 2 == 0) continue;
        const std::string sector = now.substr(at, kSector);
        content.resize(std::max(content.size(), at + sector.size()));
        content.replace(at, sector.size(), sector);
    }
    return content;
}

void Disk::rewrite(const Names& names, Unflushed survives) {
    for (const char* place : kPlaces) {
        for (const auto& entry : fs::directory_iterator(phone_.path(place)))
            fs::remove_all(entry.path());
    }
    for (const auto& [inside, inode] : names) {  // a directory before what is in it
        const File& file = files_.at(inode);
        const struct stat status = file.status();
        const std::string path = phone_.path(inside);
        if (S_ISDIR(status.st_mode)) {
            fs::create_directory(path);
        } else {
            write_file(path, surviving(file, survives));
        }
        if (chown(path.c_str(), status.st_uid, status.st_gid) != 0 ||
            chmod(path.c_str(), status.st_mode & 07777) != 0)
            fail_errno("the phone's " + inside);
    }
}

}  // namespace rvd::lab
