// An archive, read from its beginning to its end: texts are kept, dumps are counted.
#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <memory>

#include "report/evidence/evidence.h"
#include "report/print/people.h"

namespace rvd::report {

namespace {

constexpr size_t kEntryLimit = 1'000'000;
constexpr uint64_t kTotalLimit = uint64_t{64} << 30;  // unpacked
constexpr uint64_t kTextsLimit = uint64_t{1} << 30;   // kept

struct ReaderCloser {
    void operator()(archive* reader) const { archive_read_free(reader); }
};
using Reader = std::unique_ptr<archive, ReaderCloser>;

bool holds_text(Kind kind) {
    return kind != Kind::kDump && kind != Kind::kRegion && kind != Kind::kUnknown;
}

std::string message(archive* reader) {
    const char* text = archive_error_string(reader);
    return text == nullptr ? "damaged" : text;
}

class Unpacking {
  public:
    explicit Unpacking(archive* reader) : reader_(reader) {}

    File take(archive_entry* entry) {
        File file;
        const char* path = archive_entry_pathname(entry);
        file.path = path == nullptr ? "" : path;
        while (file.path.compare(0, 2, "./") == 0)
            file.path.erase(0, 2);
        if (leads_outside(file.path)) {
            file.trouble = "its path leads out of the archive: refused";
            return file;
        }
        file.name = parse_name(file.base());
        if (archive_entry_hardlink(entry) != nullptr || archive_entry_filetype(entry) == AE_IFLNK) {
            file.trouble = "a link, which is not followed";
        } else if (archive_entry_filetype(entry) != AE_IFREG) {
            file.trouble = "not a file";
        } else if (file.name.kind != Kind::kUnknown) {
            read_content(entry, file);
        } else if (archive_entry_size_is_set(entry)) {
            file.size = static_cast<uint64_t>(archive_entry_size(entry));
        }
        return file;
    }

  private:
    void read_content(archive_entry* entry, File& file) {
        // What is not in the archive of a file with holes has no block of its own.
        if (archive_entry_size_is_set(entry))
            file.size = static_cast<uint64_t>(archive_entry_size(entry));
        if (file.size > kFileLimit) {
            file.trouble = "longer than any file of rvd: not unpacked";
            return;
        }
        auto kept = std::make_shared<std::string>();
        const void* block = nullptr;
        size_t length = 0;
        la_int64_t offset = 0;
        int result = ARCHIVE_OK;
        while ((result = archive_read_data_block(reader_, &block, &length, &offset)) ==
               ARCHIVE_OK) {
            if (offset < 0 || static_cast<uint64_t>(offset) > kFileLimit - length) {
                file.trouble = "longer than any file of rvd: not unpacked further";
                return;
            }
            const uint64_t end = static_cast<uint64_t>(offset) + length;
            count(length);
            if (holds_text(file.name.kind) && end <= kTextLimit) {
                kept->resize(end);
                std::copy_n(static_cast<const char*>(block), length,
                            kept->data() + static_cast<size_t>(offset));
            }
            file.size = std::max(file.size, end);
        }
        if (result != ARCHIVE_EOF) file.trouble = message(reader_);
        texts_ += kept->size();
        if (texts_ > kTextsLimit) throw Unreadable("more than 1 GiB of text in the archive");
        file.kept = std::move(kept);
    }

    void count(uint64_t bytes) {
        total_ += bytes;
        show_progress(total_ >> 20, "MiB unpacked");
        if (total_ > kTotalLimit) throw Unreadable("the archive unpacks to more than 64 GiB");
    }

    archive* reader_;
    uint64_t total_ = 0, texts_ = 0;
};

}  // namespace

std::vector<File> list_archive(const std::string& path) {
    const Reader reader(archive_read_new());
    archive_read_support_filter_gzip(reader.get());
    archive_read_support_format_tar(reader.get());
    archive_read_support_format_zip(reader.get());
    if (archive_read_open_filename(reader.get(), path.c_str(), 64 * 1024) != ARCHIVE_OK)
        throw Unreadable(path + ": " + message(reader.get()));
    std::vector<File> files;
    Unpacking unpacking(reader.get());
    archive_entry* entry = nullptr;
    int result = ARCHIVE_OK;
    while ((result = archive_read_next_header(reader.get(), &entry)) == ARCHIVE_OK ||
           result == ARCHIVE_WARN) {
        if (files.size() >= kEntryLimit)
            throw Unreadable(path + ": more than " + std::to_string(kEntryLimit) + " files");
        if (archive_entry_filetype(entry) == AE_IFDIR) continue;
        files.push_back(unpacking.take(entry));
    }
    if (result != ARCHIVE_EOF) throw Unreadable(path + ": " + message(reader.get()));
    return files;
}

}  // namespace rvd::report
