// Silent-reset information: what the driver knows about the modem's last reset, kept on the data
// partition as text for people and handed back to the driver after the next boot. Main thread only.
//
// Results: descriptors are the caller's; -1 or another negative value on failure, which has been
// logged.
#pragma once

#include <cstddef>

namespace rvd {

// An srinfo log that is longer is rotated before the next entry.
constexpr long kSrinfoLogLimit = 65536;  // bytes

class Srinfo {
  public:
    virtual ~Srinfo() {}

    // Fetches the record through the boot node `fd` and stores it, unless one waits to be restored.
    virtual void store_srinfo(int fd) = 0;
    // Hands a waiting record back through the boot node `fd`.
    virtual void restore_srinfo(int fd);
    // Fetches a valid record, an srinfo_buf that the caller frees, or null. `*size` is the number
    // of its data bytes.
    virtual char* alloc_srinfo(unsigned int* size, int fd) = 0;
    // Appends one entry to the srinfo log: `size` bytes of a data area, no more than it holds, and
    // what fills their last row of 16. Returns `size`.
    virtual int write_srinfo_file(int fd, char* data, unsigned int size) = 0;
    // Makes sure that `path` is a directory. 0 or -1.
    virtual int create_srinfo_directory(const char* path);
    // The srinfo log of a modem, open for appending, rotated where it is longer than its limit.
    virtual int open_srinfo_file(const char* tag);
    // The last-srinfo file of a modem, open for reading.
    virtual int open_srinfo_last(const char* tag);
    // The character that stands for a byte in the log.
    virtual char tochar(char c);

  protected:
    static constexpr size_t kPathSize = 64;

    static void last_path(char (&path)[kPathSize], const char* tag);
    static void made_path(char (&path)[kPathSize], const char* tag);  // while it is written
    // A last-srinfo file with these open flags, at its start.
    static int open_last_at_start(const char* path, int flags, const char* failure);
};

}  // namespace rvd
