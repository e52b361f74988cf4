#include "main/Supervisor.h"

int main(int argc, char** argv) {
    if (const auto status = rvd::start_up(argc, argv)) return *status;
    for (;;) {
        if (const auto status = rvd::run_pass()) return *status;
    }
}
