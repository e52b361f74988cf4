// The driver's contract: what the daemon relies on in its answers and events.
#pragma once

#include <string>

namespace rvd::check {

struct Request {
    const char* name;
    unsigned number;
    bool only_zero_succeeds;
};

// Null for a number that is not a request of a boot or a dump.
const Request* find_request(unsigned number);

// The request's mode or region, with a leading space; "" for a request that has neither.
std::string detail(const Request& request, const void* argument);

// What is wrong with an answer, or "". The error of a failed request is taken from errno.
std::string wrong_answer(const Request& request, int result, const void* argument);

// What is wrong with the poll events of a node before a request, or "". A hang-up may stay until
// the state is read, and the modem may be powered off in that time. Only a region has an announced
// size.
std::string wrong_events(short revents, const Request& request);

// Whether a wait on the boot node ended with an event: the driver hangs up when the state changes,
// and only then.
bool is_event(short revents, int state_before, int state_after);

}  // namespace rvd::check
