// One of the driver's nodes as a character device in user space (CUSE). Each open, read, write,
// ioctl and poll of a caller is a message; the caller blocks until it gets a reply.
#pragma once

#define FUSE_USE_VERSION 31

#include <cuse_lowlevel.h>
#include <errno.h>
#include <fcntl.h>
#include <fuse_lowlevel.h>
#include <poll.h>
#include <stdlib.h>

#include <algorithm>
#include <list>
#include <optional>
#include <string>

#include "lab/modem/modem.h"

namespace rvd::lab {

class DeviceNode {
  public:
    // Creates the device. Throws Error.
    DeviceNode(Node node, const std::string& path, Modem& modem) : node_(node), modem_(modem) {
        const std::string device = "DEVNAME=" + path.substr(path.rfind('/') + 1);
        const char* words[] = {device.c_str()};
        const cuse_info info = {0, 0, 1, words, CUSE_UNRESTRICTED_IOCTL};
        char program[] = "rvd-lab";
        char* arguments[] = {program, nullptr};
        fuse_args args = FUSE_ARGS_INIT(1, arguments);
        const cuse_lowlevel_ops operations = {
                Operations::init, nullptr,           nullptr,         Operations::open,
                Operations::read, Operations::write, nullptr,         Operations::release,
                nullptr,          Operations::ioctl, Operations::poll};
        const int cuse = ::open("/dev/cuse", O_RDWR | O_CLOEXEC);
        if (cuse < 0)
            throw_unsupported_errno("/dev/cuse cannot be opened (is the module \"cuse\" loaded?)");
        session_ = cuse_lowlevel_new(&args, &info, &operations, this);
        if (session_ == nullptr ||
            fuse_session_mount(session_, ("/dev/fd/" + std::to_string(cuse)).c_str()) != 0)
            throw Unsupported("cannot create a CUSE session for " + path);
        process_message();  // the device exists once CUSE_INIT is answered
    }

    // Readable while a message is pending.
    int fd() const { return fuse_session_fd(session_); }

    // Handles one message. The result of an ioctl is sent by answer().
    void process_message() {
        fuse_buf message{};
        if (fuse_session_receive_buf(session_, &message) > 0)
            fuse_session_process_buf(session_, &message);
        free(message.mem);
    }

    void answer() {
        if (request_ == nullptr) return;
        if (result_ < 0) {
            fuse_reply_err(request_, static_cast<int>(-result_));
        } else {
            fuse_reply_ioctl(request_, static_cast<int>(result_), nullptr, 0);
        }
        request_ = nullptr;
    }

    void hang_up() {
        for (Open& open : opens_) {
            open.hung_up = true;
            open.awaits_hang_up = false;
            wake(open);
        }
    }

    // For the descriptor of the current request.
    void clear_hang_up() {
        if (requesting_ != nullptr) requesting_->hung_up = false;
    }

    void discard_unread() {
        for (Open& open : opens_)
            open.packet.reset();
    }

    void send_packets() {
        if (!opens_.empty() && fetch_packet(opens_.back())) wake(opens_.back());
    }

    // Wakes all callers, so that a killed daemon can exit.
    void fail_pending() {
        answer();
        hang_up();
    }

    size_t opens() const { return opens_.size(); }
    bool awaits_hang_up() const {
        return std::any_of(opens_.begin(), opens_.end(),
                           [](const Open& open) { return open.awaits_hang_up; });
    }

  private:
    struct Open {
        bool hung_up = false;
        bool awaits_hang_up = false;        // polls for a hang-up only
        std::optional<Packet> packet = {};  // from the modem, not read yet
        fuse_req* reader = nullptr;         // blocked until there is one
        size_t room = 0;
        fuse_pollhandle* poller = nullptr;
    };

    // The session's handlers, one for each kind of message.
    struct Operations {
        static DeviceNode& node(fuse_req_t req) {
            return *static_cast<DeviceNode*>(fuse_req_userdata(req));
        }

        static Open& open_of(const fuse_file_info* file) {
            return *reinterpret_cast<Open*>(file->fh);
        }

        // Longer reads and writes arrive in pieces.
        static void init(void*, fuse_conn_info* connection) {
            connection->max_read = connection->max_write = 65536;
        }

        static void open(fuse_req_t req, fuse_file_info* file) {
            file->fh = reinterpret_cast<uintptr_t>(&node(req).opens_.emplace_back());
            fuse_reply_open(req, file);
        }

        static void release(fuse_req_t req, fuse_file_info* file) {
            const Open& closed = open_of(file);
            if (closed.poller != nullptr) fuse_pollhandle_destroy(closed.poller);
            node(req).opens_.remove_if([&](const Open& open) { return &open == &closed; });
            fuse_reply_err(req, 0);
        }

        // One read takes one packet; the part that does not fit is lost.
        static void read(fuse_req_t req, size_t size, off_t, fuse_file_info* file) {
            Open& open = open_of(file);
            const bool ready = node(req).fetch_packet(open) || open.hung_up;
            if (!ready && (file->flags & O_NONBLOCK) != 0) return void(fuse_reply_err(req, EAGAIN));
            open.reader = req;
            open.room = size;
            if (ready) return node(req).wake(open);
            const auto interrupted = [](fuse_req_t reader, void* waiting) {
                static_cast<Open*>(waiting)->reader = nullptr;
                fuse_reply_err(reader, EINTR);
            };
            fuse_req_interrupt_func(req, interrupted, &open);
        }

        static void write(fuse_req_t req, const char* data, size_t size, off_t,
                          fuse_file_info* file) {
            if (open_of(file).hung_up) return void(fuse_reply_err(req, EPIPE));
            node(req).modem_.receive(node(req).node_, Packet(data, data + size));
            fuse_reply_write(req, size);
        }

        static void ioctl(fuse_req_t req, int number, void* argument, fuse_file_info* file,
                          unsigned, const void*, size_t, size_t) {
            DeviceNode& self = node(req);
            self.requesting_ = &open_of(file);
            self.result_ = self.modem_.request(self.node_, static_cast<unsigned>(number),
                                               reinterpret_cast<uintptr_t>(argument),
                                               Memory(fuse_req_ctx(req)->pid));
            self.requesting_ = nullptr;
            self.request_ = req;
        }

        static void poll(fuse_req_t req, fuse_file_info* file, fuse_pollhandle* poller) {
            Open& open = open_of(file);
            unsigned events = node(req).fetch_packet(open) ? POLLIN | POLLRDNORM : 0;
            events |= open.hung_up ? POLLHUP : POLLOUT | POLLWRNORM;
            if (open.poller != nullptr) fuse_pollhandle_destroy(open.poller);
            open.poller = poller;
            open.awaits_hang_up =
                    poller != nullptr && !open.hung_up && (file->poll_events & POLLIN) == 0;
            fuse_reply_poll(req, events);
        }
    };

    // Packets go to the newest descriptor. The modem may hang up instead of sending one.
    bool fetch_packet(Open& open) {
        Packet packet;
        if (!open.packet && !open.hung_up && &open == &opens_.back() &&
            modem_.next_packet(node_, packet) && !open.hung_up)
            open.packet = std::move(packet);
        return open.packet.has_value();
    }

    void wake(Open& open) {
        if (open.reader != nullptr) {
            const Packet packet = open.packet.value_or(Packet());  // empty: end of file
            fuse_req_interrupt_func(open.reader, nullptr, nullptr);
            fuse_reply_buf(open.reader, reinterpret_cast<const char*>(packet.data()),
                           std::min(packet.size(), open.room));
            open.reader = nullptr;
            open.packet.reset();
        }
        if (open.poller != nullptr) {
            fuse_lowlevel_notify_poll(open.poller);
            fuse_pollhandle_destroy(open.poller);
            open.poller = nullptr;
        }
    }

    const Node node_;
    Modem& modem_;
    fuse_session* session_;
    std::list<Open> opens_;
    Open* requesting_ = nullptr;
    fuse_req* request_ = nullptr;  // not answered yet
    int64_t result_ = 0;
};

}  // namespace rvd::lab
