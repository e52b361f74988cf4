// The relay module, from both of its sides at once: one thread is the caller on the nodes, the main
// thread holds the control node. Runs where the module is loaded, as root; names of the nodes as
// arguments. What does not hold is named, and the exit status is 1.

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <future>
#include <optional>
#include <thread>

#include "lab/device/relay_control.h"

using namespace rvd::lab;
using Event = RelayControl::Event;

namespace {

constexpr int kPatienceMs = 5000;
constexpr unsigned long kSizeless = _IO('x', 1);
constexpr unsigned long kBothWays = _IOWR('x', 2, char[40]);

std::string boot_path, dump_path;
int failures = 0;
const char* current = "";

void check(bool held, const std::string& what) {
    if (held) return;
    failures++;
    printf("NOT HELD: %s: %s\n", current, what.c_str());
}

// The next event, which must be of this kind.
Event expect(RelayControl& control, uint32_t kind) {
    Event event{};
    pollfd ready = {control.fd(), POLLIN, 0};
    if (poll(&ready, 1, kPatienceMs) != 1 || !control.next(event)) {
        check(false, format("no event of kind %u", kind));
    } else {
        check(event.head.kind == kind,
              format("an event of kind %u, not %u", event.head.kind, kind));
    }
    return event;
}

// Something that a caller does and that ends when the holder has done its part.
template <class Function>
auto caller(Function function) {
    return std::async(std::launch::async, function);
}

struct Result {
    int value, error;
};

Result outcome(int value) {
    return {value, value < 0 ? errno : 0};
}

struct Opened {
    int fd;
    uint64_t id;
};

Opened open_node(RelayControl& control, const std::string& path, int flags = 0) {
    auto opening = caller([&] { return open(path.c_str(), O_RDWR | O_CLOEXEC | flags); });
    const Event event = expect(control, RELAY_OPEN);
    control.answer(event, 0);
    return {opening.get(), event.head.open};
}

void close_node(RelayControl& control, const Opened& opened) {
    close(opened.fd);
    check(expect(control, RELAY_CLOSE).head.open == opened.id, "another open is closed");
}

short conditions(int fd, short events) {
    pollfd entry = {fd, events, 0};
    poll(&entry, 1, 0);
    return entry.revents;
}

void nobody_holds() {
    check(open(boot_path.c_str(), O_RDWR) < 0 && errno == ENODEV, "a node opens with no holder");
    RelayControl control;
    bool second = true;
    try {
        RelayControl other;
    } catch (const Unable&) {
        second = false;
    }
    check(!second, "the control node is held twice");
}

void opens() {
    RelayControl control;
    auto opening = caller([] { return outcome(open(dump_path.c_str(), O_RDWR | O_NONBLOCK)); });
    const Event event = expect(control, RELAY_OPEN);
    check(event.head.node == RELAY_NODE_DUMP, "the dump node's open names another node");
    check((event.head.argument & O_NONBLOCK) != 0, "the flags of an open are not told");
    control.answer(event, -EBUSY);
    check(opening.get().error == EBUSY, "a refused open does not fail as told");
    const Opened first = open_node(control, boot_path), second = open_node(control, boot_path);
    check(first.id != second.id, "two opens have one number");
    close_node(control, first);
    close_node(control, second);
}

void sized_requests() {
    RelayControl control;
    const Opened node = open_node(control, boot_path);
    char record[40] = "region";
    auto asking = caller([&] { return outcome(ioctl(node.fd, kBothWays, record)); });
    const Event event = expect(control, RELAY_IOCTL);
    check(event.head.request == kBothWays, "the request's number is not told");
    check(event.data.size() == 40 && memcmp(event.data.data(), "region", 7) == 0,
          "the argument is not brought along");
    RelayMemory memory(control, event);
    char seen[8] = {};
    check(memory.read(event.head.argument, seen, sizeof(seen)) && strcmp(seen, "region") == 0,
          "the argument is not read");
    check(memory.write(event.head.argument, "answer", 7), "the argument is not written");
    control.answer(event, 17, memory.answer());
    check(asking.get().value == 17, "a request's result is not passed on");
    check(strcmp(record, "answer") == 0, "what a request answers is not stored");

    auto refused = caller([&] { return outcome(ioctl(node.fd, kBothWays, record)); });
    control.answer(expect(control, RELAY_IOCTL), -EINVAL);
    check(refused.get().error == EINVAL, "a refused request does not fail as told");
    check(ioctl(node.fd, kBothWays, nullptr) < 0 && errno == EFAULT, "a bad argument is taken");
    close_node(control, node);
}

void caller_memory() {
    RelayControl control;
    const Opened node = open_node(control, boot_path);
    std::string bytes(200'000, 'a');
    bytes[199'999] = 'z';
    auto asking = caller([&] { return outcome(ioctl(node.fd, kSizeless, bytes.data())); });
    const Event event = expect(control, RELAY_IOCTL);
    check(event.data.empty(), "a request without a size brings data along");
    RelayMemory memory(control, event);
    std::string seen(bytes.size(), '\0');
    check(memory.read(event.head.argument, seen.data(), seen.size()) && seen == bytes,
          "200,000 bytes of the caller are not read");
    check(memory.write(event.head.argument, "written", 7), "the caller's memory is not written");
    check(!memory.read(8, seen.data(), 16), "a bad address is read");
    check(!memory.write(8, seen.data(), 16), "a bad address is written");
    control.answer(event, 0, memory.answer());
    check(asking.get().value == 0, "a request does not end");
    check(bytes.compare(0, 8, "writtena") == 0, "what was written is not there");
    check(!control.copy_from(event, event.head.argument, seen.data(), 8),
          "a caller's memory is read after its request has ended");
    close_node(control, node);
}

void packets() {
    RelayControl control;
    const Opened node = open_node(control, boot_path);
    const std::string sent[] = {"word", std::string(2064, 'f'), ""};
    for (const std::string& packet : sent)
        check(write(node.fd, packet.data(), packet.size()) == static_cast<ssize_t>(packet.size()),
              "a write is not taken whole");
    auto asking = caller([&] { return outcome(ioctl(node.fd, kSizeless, 0)); });
    for (const std::string& packet : sent) {
        const Event event = expect(control, RELAY_WRITE);
        check(std::string(event.data.begin(), event.data.end()) == packet,
              "a packet does not arrive as it was written");
    }
    control.answer(expect(control, RELAY_IOCTL), 0);
    asking.get();
    const std::string huge(RELAY_MAX_PACKET + 1, 'x');
    check(write(node.fd, huge.data(), huge.size()) < 0 && errno == EMSGSIZE,
          "a packet that is too long is taken");

    check(conditions(node.fd, POLLIN | POLLOUT) == POLLOUT, "an idle node is not just writable");
    control.deliver(node.id, Packet(12, 1));
    control.deliver(node.id, Packet(2064, 2));
    check(conditions(node.fd, POLLIN) == POLLIN, "a node with a packet is not readable");
    char buffer[4096];
    check(read(node.fd, buffer, sizeof(buffer)) == 12, "a read takes more than its packet");
    check(read(node.fd, buffer, 4) == 4 && buffer[0] == 2, "a short read is not served");
    check(conditions(node.fd, POLLIN) == 0, "the rest of a packet is left over");

    auto reading = caller([&] { return read(node.fd, buffer, sizeof(buffer)); });
    check((expect(control, RELAY_WAIT).head.request & POLLIN) != 0, "a reader's wait is not told");
    control.deliver(node.id, Packet(3, 3));
    check(reading.get() == 3, "a waiting reader does not get its packet");
    control.deliver(node.id, Packet(5, 5));
    control.flush(node.id);
    check(conditions(node.fd, POLLIN) == 0, "a flushed packet is still there");
    close_node(control, node);
}

void bounds() {
    RelayControl control;
    const Opened node = open_node(control, dump_path, O_NONBLOCK);
    const Packet packet(4096, 7);
    size_t delivered = 0;
    while (control.deliver(node.id, packet) == RelayControl::Delivery::done)
        delivered += 4096;
    check(delivered > RELAY_MAX_QUEUED / 2 && delivered <= RELAY_MAX_QUEUED,
          "packets queue without the bound");
    char buffer[4096];
    size_t taken = 0;
    while (read(node.fd, buffer, sizeof(buffer)) > 0)
        taken += sizeof(buffer);
    check(taken == delivered && errno == EAGAIN, "a queue does not come out as it went in");
    expect(control, RELAY_ROOM);
    check(control.deliver(node.id, packet) == RelayControl::Delivery::done,
          "there is no room after room was told");

    size_t written = 0;
    for (ssize_t n; (n = write(node.fd, packet.data(), packet.size())) > 0;)
        written += static_cast<size_t>(n);
    check(errno == EAGAIN && written <= RELAY_MAX_QUEUED, "writes queue without a bound");
    auto waiting = caller([&] {
        fcntl(node.fd, F_SETFL, 0);
        return write(node.fd, packet.data(), packet.size());
    });
    for (size_t n = 0; n < written; n += packet.size())
        expect(control, RELAY_WRITE);
    check(waiting.get() == static_cast<ssize_t>(packet.size()), "a waiting writer stays waiting");
    expect(control, RELAY_WRITE);

    fcntl(node.fd, F_SETFL, O_NONBLOCK);
    size_t empty = 0;
    while (empty <= RELAY_MAX_QUEUED && write(node.fd, "", 0) == 0)
        empty++;
    check(errno == EAGAIN && empty < RELAY_MAX_QUEUED, "empty packets queue without a bound");
    for (size_t n = 0; n < empty; n++)
        expect(control, RELAY_WRITE);
    close_node(control, node);
}

void hang_ups() {
    RelayControl control;
    const Opened node = open_node(control, boot_path), other = open_node(control, boot_path);
    pollfd entry = {node.fd, 0, 0};
    auto polling = caller([&] { return poll(&entry, 1, kPatienceMs); });
    check((expect(control, RELAY_WAIT).head.request & POLLIN) == 0,
          "a wait for a hang-up looks like one for input");
    control.hang_up(node.id, true);
    check(polling.get() == 1 && entry.revents == POLLHUP, "a waiting poll sees no hang-up");
    check(conditions(node.fd, POLLIN | POLLOUT) == POLLHUP, "a hang-up brings other conditions");
    check(conditions(other.fd, POLLOUT) == POLLOUT, "a hang-up reaches another open");
    char byte = 0;
    check(write(node.fd, &byte, 1) < 0 && errno == EPIPE, "a hung-up node is written");
    check(read(node.fd, &byte, 1) == 0, "a hung-up node has input");
    control.deliver(node.id, Packet(1, 9));
    check(conditions(node.fd, POLLIN) == (POLLIN | POLLHUP), "a hang-up hides what is left");
    check(read(node.fd, &byte, 1) == 1 && byte == 9, "what is left can't be read");
    auto asking = caller([&] { return outcome(ioctl(node.fd, kSizeless, 0)); });
    const Event event = expect(control, RELAY_IOCTL);
    control.hang_up(node.id, false);
    control.answer(event, 2);
    check(asking.get().value == 2, "a hung-up node serves no request");
    check(conditions(node.fd, POLLOUT) == POLLOUT, "a hang-up does not end");
    close_node(control, node);
    close_node(control, other);
}

void killed_caller() {
    RelayControl control;
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = open(boot_path.c_str(), O_RDWR);
        ioctl(fd, kSizeless, 0);
        _exit(0);
    }
    control.answer(expect(control, RELAY_OPEN), 0);
    const Event event = expect(control, RELAY_IOCTL);
    kill(pid, SIGKILL);
    int status = 0;
    check(waitpid(pid, &status, 0) == pid && WIFSIGNALED(status), "a killed caller stays");
    expect(control, RELAY_CLOSE);
    char byte = 0;
    check(!control.copy_from(event, event.head.argument, &byte, 1), "a dead caller is read");
    control.answer(event, 0);
}

void holder_dies() {
    int pipes[2];
    if (pipe(pipes) != 0) return check(false, "no pipe");
    const pid_t pid = fork();
    if (pid == 0) {
        RelayControl control;
        char byte = 0;
        if (write(pipes[1], &byte, 1) != 1) _exit(1);
        control.answer(expect(control, RELAY_OPEN), 0);
        expect(control, RELAY_IOCTL);
        if (write(pipes[1], &byte, 1) != 1) _exit(1);
        for (;;)
            pause();
    }
    char buffer[8];
    if (read(pipes[0], buffer, 1) != 1) return check(false, "the holder does not start");
    const int fd = open(boot_path.c_str(), O_RDWR);
    auto asking = caller([&] { return outcome(ioctl(fd, kSizeless, 0)); });
    if (read(pipes[0], buffer, 1) != 1) return check(false, "the holder gets no request");
    auto reading = caller([&] { return outcome(static_cast<int>(read(fd, buffer, 8))); });
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    check(asking.get().error == ENODEV, "a request outlives its holder");
    check(reading.get().error == ENODEV, "a read outlives its holder");
    check((conditions(fd, POLLIN) & (POLLHUP | POLLERR)) == (POLLHUP | POLLERR),
          "a node without a holder shows no hang-up");
    check(write(fd, buffer, 4) < 0 && errno == ENODEV, "a node without a holder is written");
    RelayControl control;
    check(ioctl(fd, kSizeless, 0) < 0 && errno == ENODEV, "an orphaned open comes back to life");
    close(fd);
    close_node(control, open_node(control, boot_path));
    close(pipes[0]);
    close(pipes[1]);
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc != 3) throw Unable("usage: relay_test BOOT-NODE DUMP-NODE");
    boot_path = argv[1];
    dump_path = argv[2];
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const std::pair<const char*, void (*)()> cases[] = {
            {"nobody holds the control node", nobody_holds},
            {"opens", opens},
            {"requests that encode their size", sized_requests},
            {"the caller's memory", caller_memory},
            {"packets", packets},
            {"bounds of the queues", bounds},
            {"hang-ups", hang_ups},
            {"a killed caller", killed_caller},
            {"a dead holder", holder_dies},
    };
    for (const auto& [name, body] : cases) {
        current = name;
        body();
    }
    printf("%zu passed, %d failed\n", std::size(cases), failures);
    return failures == 0 ? 0 : 1;
} catch (const Unable& unable) {
    printf("NOT HELD: %s: %s\n", current, unable.what());
    return 1;
}
