// What the daemon relies on in the driver's answers.
#pragma once

#include <string>

namespace rvd::check {

struct Request {
    const char* name;
    unsigned number;
    bool zero_alone;  // is success
};

// Null for a number that is not a request of a boot or a dump.
const Request* find_request(unsigned number);

// What the request is about, after a blank: a mode, a region. "" for most requests.
std::string detail(const Request& request, const void* argument);

// What is wrong with an answer; "" if nothing is. A failed request has its error in errno.
std::string difference(const Request& request, int result, const void* argument);

// What is wrong with the events that a node shows before a request; "" if nothing is. A hang-up may
// stand until the state is read, and the modem may be powered off meanwhile. Only a region has an
// announced size.
std::string out_of_place(short shown, const Request& request);

// Whether what ended a wait on the boot node, and the states before and after it, are an event: the
// driver hangs up to tell of another state, and for nothing else.
bool tells_of_event(short shown, int before, int after);

}  // namespace rvd::check
