// What is in a firmware image, and what each modem's daemon makes of it.
#pragma once

#include <string>

namespace rvd::lab {

// Prints it. Returns the exit status: whether a modem takes the image. Throws Unable.
int print_toc(const std::string& image, bool json);

}  // namespace rvd::lab
