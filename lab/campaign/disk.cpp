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
constexpr const char* kMountPoints[] = {"/data", "/efs", "/mnt"};

bool is_synchronous(const std::string& fdinfo) {
    const std::string text = read_file(fdinfo);
    const size_t at = text.find("flags:");
    return at != text.npos && (strtoul(text.c_str() + at + 6, nullptr, 8) & O_SYNC) == O_SYNC;
}

}  // namespace

Disk::Disk(const Phone& phone) : phone_(phone) {
    flush_all();
}

bool Disk::contains(const std::string& path) {
    return std::any_of(
            std::begin(kMountPoints), std::end(kMountPoints),
            [&](const std::string& mount_point) { return starts_with(path, mount_point + "/"); });
}

struct stat Disk::File::status() const {
    struct stat status {};
    if (fstat(fd.get(), &status) != 0) throw_errno("cannot examine a file of the phone");
    return status;
}

std::string Disk::File::content() const {
    return read_file(fd.get());
}

Disk::File& Disk::track(ScopedFd fd) {
    File file{std::move(fd), ""};
    return files_.try_emplace(file.status().st_ino, std::move(file)).first->second;
}

Disk::Names Disk::current_names() {
    Names names;
    for (const char* mount_point : kMountPoints) {
        for (const auto& entry : fs::recursive_directory_iterator(phone_.path(mount_point))) {
            ScopedFd fd(open(entry.path().c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
            if (fd.valid())
                names[phone_.inside(entry.path())] = track(std::move(fd)).status().st_ino;
        }
    }
    return names;
}

void Disk::flush_all() {
    names_ = current_names();
    for (auto& [inode, file] : files_)
        file.durable = file.content();
}

void Disk::on_call(const std::string& name, const std::string& path, pid_t daemon, int fd) {
    if (pending_effect_) std::exchange(pending_effect_, nullptr)();
    if (name == "sync") pending_effect_ = [this] { flush_all(); };
    if (!contains(path) || (name != "fsync" && name != "write")) return;
    const auto proc_path = [&](const char* what) {
        return fmt::format("/proc/{}/{}/{}", daemon, what, fd);
    };
    if (name == "write" && !is_synchronous(proc_path("fdinfo"))) return;
    File& file = track(ScopedFd(open(proc_path("fd").c_str(), O_PATH | O_CLOEXEC)));
    pending_effect_ = [this, &file] { flush(file); };
}

// Flushing a directory makes all earlier changes of names durable: they share one journal.
void Disk::flush(File& file) {
    file.durable = file.content();
    if (S_ISDIR(file.status().st_mode)) names_ = current_names();
}

void Disk::cut(Survival survival, uint64_t seed) {
    pending_effect_ = nullptr;
    random_.seed(seed);
    const Names names = current_names();
    // Some content survives with all names: a file without its content does the most harm.
    rewrite(survival == Survival::none ? names_ : names, survival);
}

std::string Disk::content_after_cut(const File& file, Survival survival) {
    const std::string now = file.content();
    if (survival == Survival::all) return now;
    if (survival == Survival::none || now == file.durable) return file.durable;
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

void Disk::rewrite(const Names& names, Survival survival) {
    for (const char* mount_point : kMountPoints) {
        for (const auto& entry : fs::directory_iterator(phone_.path(mount_point)))
            fs::remove_all(entry.path());
    }
    for (const auto& [inside, inode] : names) {  // sorted: a directory before its entries
        const File& file = files_.at(inode);
        const struct stat status = file.status();
        const std::string path = phone_.path(inside);
        if (S_ISDIR(status.st_mode)) {
            fs::create_directory(path);
        } else {
            write_file(path, content_after_cut(file, survival));
        }
        if (chown(path.c_str(), status.st_uid, status.st_gid) != 0 ||
            chmod(path.c_str(), status.st_mode & 07777) != 0)
            throw_errno("cannot restore " + inside);
    }
}

}  // namespace rvd::lab
