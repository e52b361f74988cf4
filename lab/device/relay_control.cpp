#include "lab/device/relay_control.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

namespace rvd::lab {

namespace {

constexpr char kControlNode[] = "/dev/" RELAY_CONTROL_NAME;

uint64_t address_of(const void* pointer) {
    return reinterpret_cast<uintptr_t>(pointer);
}

}  // namespace

RelayControl::RelayControl() : fd_(open(kControlNode, O_RDWR | O_NONBLOCK | O_CLOEXEC)) {
    if (fd_ < 0)
        fail_errno(std::string(kControlNode) + " can't be held; is the relay module loaded?");
}

RelayControl::~RelayControl() {
    close(fd_);
}

bool RelayControl::next(Event& event) {
    Packet buffer(sizeof(relay_event) + RELAY_MAX_PACKET);
    const ssize_t n = read(fd_, buffer.data(), buffer.size());
    if (n < 0 && errno == EAGAIN) return false;
    if (n < static_cast<ssize_t>(sizeof(relay_event))) fail_errno("no event from the relay");
    memcpy(&event.head, buffer.data(), sizeof(event.head));
    event.data.assign(buffer.begin() + sizeof(relay_event), buffer.begin() + n);
    return true;
}

// Returns 0 or the errno of an order that came too late or was too much; any other is a fault here.
int RelayControl::order(unsigned long request, const void* argument) {
    if (ioctl(fd_, request, argument) == 0) return 0;
    if (errno != ENOENT && errno != EAGAIN && errno != EFAULT) fail_errno("the relay refuses");
    return errno;
}

void RelayControl::answer(const Event& event, int64_t result, const Packet& data) {
    const relay_answer order_record = {event.head.call, result, address_of(data.data()),
                                       static_cast<uint32_t>(data.size()), 0};
    order(RELAY_DO_ANSWER, &order_record);
}

RelayControl::Delivery RelayControl::deliver(uint64_t open, const Packet& packet) {
    const relay_packet order_record = {open, address_of(packet.data()),
                                       static_cast<uint32_t>(packet.size()), 0};
    const int error = order(RELAY_DO_DELIVER, &order_record);
    return error == 0 ? Delivery::done : error == EAGAIN ? Delivery::full : Delivery::gone;
}

void RelayControl::flush(uint64_t open) {
    order(RELAY_DO_FLUSH, &open);
}

void RelayControl::hang_up(uint64_t open, bool raised) {
    const relay_hangup order_record = {open, raised, 0};
    order(RELAY_DO_HANGUP, &order_record);
}

bool RelayControl::copy(relay_copy order_record, size_t size) {
    while (size > 0) {
        order_record.length = static_cast<uint32_t>(std::min<size_t>(size, RELAY_MAX_PACKET));
        if (order(RELAY_DO_COPY, &order_record) != 0) return false;
        order_record.address += order_record.length;
        order_record.data += order_record.length;
        size -= order_record.length;
    }
    return true;
}

bool RelayControl::copy_from(const Event& event, uint64_t address, void* out, size_t size) {
    return copy({event.head.call, address, address_of(out), 0, 0}, size);
}

bool RelayControl::copy_to(const Event& event, uint64_t address, const void* data, size_t size) {
    return copy({event.head.call, address, address_of(data), 0, 1}, size);
}

void RelayControl::panic(const std::string& reason) {
    relay_panic order_record{};
    memcpy(order_record.reason, reason.data(),
           std::min(reason.size(), sizeof(order_record.reason) - 1));
    ioctl(fd_, RELAY_DO_PANIC, &order_record);
    fail_errno("the kernel did not panic");
}

RelayMemory::RelayMemory(RelayControl& control, const RelayControl::Event& event)
    : control_(control),
      event_(event),
      room_((_IOC_DIR(event.head.request) & _IOC_READ) != 0 ? _IOC_SIZE(event.head.request) : 0) {}

bool RelayMemory::read(uint64_t address, void* out, size_t size) {
    const uint64_t offset = address - event_.head.argument;
    if (offset > event_.data.size() || size > event_.data.size() - offset)
        return control_.copy_from(event_, address, out, size);
    memcpy(out, event_.data.data() + offset, size);
    return true;
}

bool RelayMemory::write(uint64_t address, const void* data, size_t size) {
    if (address != event_.head.argument || size > room_)
        return control_.copy_to(event_, address, data, size);
    const auto* bytes = static_cast<const uint8_t*>(data);
    answer_.assign(bytes, bytes + size);
    return true;
}

}  // namespace rvd::lab
