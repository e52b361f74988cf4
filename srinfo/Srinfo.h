// Silent-reset information: the driver's record of the modem's last reset. It is appended to a log,
// and its text is kept in the last-srinfo file until the next boot returns it to the driver. Main
// thread only.
//
// Results: -1 or another negative value on failure, which has been logged. The caller owns a
// returned descriptor.
#pragma once

#include <cstddef>

namespace rvd {

// A longer srinfo log is rotated before the next entry.
constexpr long kSrinfoLogLimit = 65536;  // bytes

class Srinfo {
  public:
    virtual ~Srinfo() {}

    // Fetches the record through the boot node `fd` and saves it, unless a last-srinfo file exists.
    virtual void store_srinfo(int fd) = 0;
    // Returns the text in the last-srinfo file to the driver through the boot node `fd` and removes
    // the file.
    virtual void restore_srinfo(int fd);
    // Fetches a record and checks it. Returns an srinfo_buf that the caller frees, or null; `*size`
    // is the number of its data bytes.
    virtual char* alloc_srinfo(unsigned int* size, int fd) = 0;
    // Appends `size` bytes of a data area to the srinfo log, clamped to the area, in rows of 16.
    // Returns the clamped size.
    virtual int write_srinfo_file(int fd, char* data, unsigned int size) = 0;
    // Creates the directory `path` if it does not exist. Returns 0 or -1.
    virtual int create_srinfo_directory(const char* path);
    // Opens the srinfo log of a modem for appending, after rotating one beyond its limit.
    virtual int open_srinfo_file(const char* tag);
    // Opens the last-srinfo file of a modem for reading.
    virtual int open_srinfo_last(const char* tag);
    // The character for a byte in the log, '.' for one that is not printable.
    virtual char tochar(char c);

  protected:
    static constexpr size_t kPathSize = 64;

    // The path of the last-srinfo file, and its name while it is written.
    static void last_path(char (&path)[kPathSize], const char* tag);
    static void temporary_path(char (&path)[kPathSize], const char* tag);
    // Opens a last-srinfo file at offset 0, with these additional flags.
    static int open_last_at_start(const char* path, int flags, const char* failure);
};

}  // namespace rvd
