// The records of the tq720 and vk880 generation of modems: a header of 16 bytes, which the daemon
// ignores, then text up to its first closing brace.
#pragma once

#include "srinfo/Srinfo.h"

namespace rvd {

class SrinfoVelo : public Srinfo {
  public:
    void store_srinfo(int fd) override;
    void restore_srinfo(int fd) override;
    char* alloc_srinfo(unsigned int* size, int fd) override;
    int write_srinfo_file(int fd, char* data, unsigned int size) override;

    // Creates a last-srinfo file under its temporary name and opens it for writing.
    int create_srinfo_last(const char* tag);
    // Writes the record's text: bytes 16 to `size` + 16 of the data area, up to and including the
    // first closing brace. Returns the bytes written, or -1.
    int write_srinfo_last(int fd, char* data, unsigned int size);

  private:
    bool last_exists(const char* tag);
    bool publish_last(const char* tag);
    bool save_last(const char* tag, char* data, unsigned int size);
    void save_log(const char* tag, char* data, unsigned int size);
};

}  // namespace rvd
