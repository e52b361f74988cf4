// The records of this generation of modems: a header of 16 bytes that the daemon does not read,
// then text that ends with its first closing brace.
#pragma once

#include "srinfo/Srinfo.h"

namespace rvd {

class SrinfoVelo : public Srinfo {
  public:
    void store_srinfo(int fd) override;
    void restore_srinfo(int fd) override;
    char* alloc_srinfo(unsigned int* size, int fd) override;
    int write_srinfo_file(int fd, char* data, unsigned int size) override;

    // A new last-srinfo file, open for writing at its start; it has yet to get its name.
    int create_srinfo_last(const char* tag);
    // Writes the record's text: data bytes 16 to `size` + 16 of a data area, up to the first
    // closing brace. Returns the bytes written, or -1.
    int write_srinfo_last(int fd, char* data, unsigned int size);

  private:
    bool last_exists(const char* tag);
    bool name_last(const char* tag);
    bool save_last(const char* tag, char* data, unsigned int size);
    void save_log(const char* tag, char* data, unsigned int size);
};

}  // namespace rvd
