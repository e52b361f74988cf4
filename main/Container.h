// The process-wide registry: the arguments and the objects they select. The main thread fills it at
// start-up; afterwards it is only read, and nothing in it is ever released.
#pragma once

#include "main/RvdArgs.h"

namespace rvd {

class BootDump;
class Protocol;
class Srinfo;
struct std_boot_args;
struct std_dump_args;

// The result of parsing the command line.
enum parse_result : int {
    PARSE_OK = 0,
    PARSE_INVALID = 1,
    PARSE_USAGE = 2,
    PARSE_TEST = 3,  // a test action ran
};

class Container {
  public:
    // Never null.
    static RvdArgs* getRvdArgs();

    // The controller and its records; null until a modem is selected.
    static BootDump* getBootDump();
    static std_boot_args* getStdBoot();
    static std_dump_args* getStdDump();

    static void setProtocol(Protocol* protocol);
    static Protocol* getProtocol();

    // Null until a modem is selected.
    static Srinfo* getSrinfo();

    // Parses the command line into the arguments and creates the objects of the modem it names.
    // Returns a parse_result.
    static int parseArgs(int argc, char** argv);

    // Prints the usage to standard output.
    static void printUsage(const char* program);

  private:
    static bool select_modem(const char* type);
};

}  // namespace rvd
