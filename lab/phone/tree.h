// The files beneath a directory, by their path there. No path leads out of it: not by "..", nor by
// a symbolic link that the daemon has made.
#pragma once

#include <sys/types.h>

#include <string>

namespace rvd::lab {

class Tree {
  public:
    explicit Tree(std::string root) : root_(std::move(root)) {}

    const std::string& root() const { return root_; }
    std::string path(const std::string& inside) const { return root_ + inside; }

    // These throw Unable.
    void make_directory(const std::string& inside) const;  // with all above it
    void write(const std::string& inside, const std::string& content) const;
    void remove(const std::string& inside) const;  // with what is in it
    void own(const std::string& inside, uid_t owner) const;

  private:
    std::string root_;
};

}  // namespace rvd::lab
