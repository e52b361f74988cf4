#include "lab/modem/driver.h"

#include <errno.h>
#include <fmt/format.h>
#include <string.h>
#include <sys/mman.h>

#include <algorithm>

namespace rvd::lab {

namespace {

// The driver's other states, for its own use and for the log.
constexpr int kStateBooting = 3;
constexpr int kStateOnline = 4;

constexpr uint64_t kModemMemory = uint64_t{kModemOffsetMask} + 1;
constexpr size_t kSrinfoHeader = 16;

const char* mode_name(uint32_t mode) {
    return mode == CP_BOOT_MODE_NORMAL ? "normal" : mode == CP_BOOT_MODE_DUMP ? "dump" : "?";
}

const char* state_name(int state) {
    switch (state) {
        case MODEM_STATE_OFF:
            return "off";
        case MODEM_STATE_CRASH_RESET:
            return "crash reset";
        case MODEM_STATE_CRASH:
            return "crash";
        case MODEM_STATE_CRASH_WATCHDOG:
            return "watchdog crash";
        case kStateBooting:
            return "booting";
        case kStateOnline:
            return "online";
        default:
            return "unknown";
    }
}

}  // namespace

const Driver::Handler Driver::kHandlers[] = {
        {IOCTL_POWER_ON, "POWER_ON", true, false, false, &Driver::power_on},
        {IOCTL_POWER_OFF, "POWER_OFF", true, false, true, &Driver::power_off},
        {IOCTL_POWER_RESET, "POWER_RESET", true, false, false, &Driver::power_reset},
        {IOCTL_START_CP_BOOTLOADER, "START_CP_BOOTLOADER", true, false, false,
         &Driver::start_loader},
        {IOCTL_COMPLETE_NORMAL_BOOTUP, "COMPLETE_NORMAL_BOOTUP", true, false, false,
         &Driver::complete},
        {IOCTL_GET_CP_STATUS, "GET_CP_STATUS", true, false, false, &Driver::status},
        {IOCTL_TRIGGER_KERNEL_PANIC, "TRIGGER_KERNEL_PANIC", true, true, false, &Driver::panic},
        {IOCTL_LOAD_CP_IMAGE, "LOAD_CP_IMAGE", true, false, true, &Driver::load_image},
        {IOCTL_GET_SRINFO, "GET_SRINFO", true, false, false, &Driver::get_srinfo},
        {IOCTL_SET_SRINFO, "SET_SRINFO", true, false, false, &Driver::set_srinfo},
        {IOCTL_NOTIFY_BOOT_FAIL, "NOTIFY_BOOT_FAIL", true, false, false, &Driver::notify_fail},
        {IOCTL_NOTIFY_BOOT_DONE, "NOTIFY_BOOT_DONE", true, false, false, &Driver::notify_done},
        {IOCTL_GET_LOG_DUMP, "GET_LOG_DUMP", false, true, false, &Driver::log_dump},
        {IOCTL_CHECK_SECURITY, "CHECK_SECURITY", true, false, true, &Driver::check_security},
        {IOCTL_GET_CP_CRASH_REASON, "GET_CP_CRASH_REASON", false, true, false,
         &Driver::crash_reason},
        {IOCTL_GET_LNKM_VERSION, "GET_LNKM_VERSION", false, true, false, &Driver::version},
};

std::vector<std::string> request_names() {
    std::vector<std::string> names;
    for (const Driver::Handler& handler : Driver::kHandlers)
        names.emplace_back(handler.name);
    return names;
}

Driver::Driver(const Scenario& scenario, const Partition& partition, Stage& stage, Story& story)
    : scenario_(scenario),
      partition_(partition),
      stage_(stage),
      story_(story),
      loader_(scenario, partition, stage, story),
      state_(static_cast<int>(scenario.driver.state)) {
    void* memory = mmap(nullptr, kModemMemory, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) fail_errno("cannot reserve the modem's memory");
    modem_memory_ = static_cast<uint8_t*>(memory);
}

Driver::~Driver() {
    munmap(modem_memory_, kModemMemory);
}

int64_t Driver::request(Node node, unsigned long number, uint64_t argument, Memory& memory) {
    const Handler* handler =
            std::find_if(std::begin(kHandlers), std::end(kHandlers),
                         [&](const Handler& known) { return known.number == number; });
    if (handler == std::end(kHandlers) || !(node == Node::boot ? handler->boot : handler->dump)) {
        story_.violation(fmt::format("request 0x{:08X} on the {} node", number, node_name(node)));
        return -ENOTTY;
    }
    if (notification_ != Due::nothing && number != IOCTL_NOTIFY_BOOT_DONE &&
        number != IOCTL_NOTIFY_BOOT_FAIL) {
        story_.violation(std::string(handler->name) +
                         " before the boot is reported as done or failed");
        notification_ = Due::nothing;
    }
    Call call{node, argument, memory, false, true, ""};
    const Answer* answer = answer_for(handler->name);
    call.refused =
            answer != nullptr && (answer->result < 0 || (handler->strict && answer->result != 0));
    int64_t result = (this->*handler->serve)(call);
    if (answer != nullptr) result = answer->result;
    std::string text = handler->name + call.detail;
    if (result != 0) text += fmt::format(" = {}", result);
    story_.request("driver", text, call.shown || result != 0);
    return result;
}

// The daemon goes by what it was told: the boot has failed, or its end has been notified.
void Driver::lost(unsigned long number) {
    if (number == IOCTL_COMPLETE_NORMAL_BOOTUP) notification_ = Due::fail;
    if (number == IOCTL_NOTIFY_BOOT_DONE || number == IOCTL_NOTIFY_BOOT_FAIL)
        notification_ = Due::nothing;
}

const Answer* Driver::answer_for(const std::string& name) {
    times_[name]++;
    const Answer* found = nullptr;
    for (const Answer& answer : scenario_.driver.answers) {
        if (answer.request == name && answer.turn.takes() && found == nullptr) found = &answer;
    }
    return found;
}

void Driver::recall(Times times) {
    times_ = std::move(times);
    for (const Answer& answer : scenario_.driver.answers)
        answer.turn.seen = times_[answer.request];
}

void Driver::change_state(int state) {
    state_ = state;
    story_.tell("driver", "daemon",
                fmt::format("the modem is in state {} ({})", state, state_name(state)));
    stage_.hang_up(Node::boot);
}

void Driver::reboot() {
    state_ = MODEM_STATE_OFF;
    powered_ = verified_ = false;
    notification_ = Due::nothing;
    image_ = nullptr;
    loaded_.clear();
    loader_.stop();
}

int64_t Driver::power_on(Call& call) {
    if (call.refused) return 0;
    powered_ = true;
    verified_ = false;
    image_ = nullptr;
    state_ = kStateBooting;
    return 0;
}

int64_t Driver::power_off(Call& call) {
    if (call.refused) return 0;
    powered_ = false;
    state_ = MODEM_STATE_OFF;
    loader_.stop();
    return 0;
}

int64_t Driver::power_reset(Call& call) {
    uint32_t mode = 0;
    if (!call.memory.read(call.argument, &mode, sizeof(mode))) return -EFAULT;
    call.detail = fmt::format(" {}", mode_name(mode));
    if (call.refused) return 0;
    loader_.stop();
    image_ = nullptr;
    verified_ = false;
    powered_ = powered_ || mode == CP_BOOT_MODE_DUMP;
    stage_.flush(Node::dump);
    return 0;
}

int64_t Driver::start_loader(Call& call) {
    uint32_t mode = 0;
    if (!call.memory.read(call.argument, &mode, sizeof(mode))) return -EFAULT;
    call.detail = fmt::format(" {}", mode_name(mode));
    if (call.refused) return 0;
    if (mode > CP_BOOT_MODE_DUMP) story_.violation("the loader is started in an unknown mode");
    if (!powered_) story_.violation("the loader is started while the modem is off");
    if (image_ == nullptr || image_bytes_ != image_->size)
        story_.violation("the loader is started before its images are complete");
    if (!verified_ && !scenario_.external())
        story_.violation("the loader is started before its images are verified");
    loader_.start(static_cast<cp_boot_mode>(mode));
    return 0;
}

int64_t Driver::complete(Call& call) {
    notification_ = call.refused ? Due::fail : Due::done;
    if (!loader_.finished())
        story_.violation("boot-up is called complete before the handshake has ended");
    if (!call.refused) state_ = kStateOnline;
    return 0;
}

void Driver::notify(bool done) {
    if (notification_ != (done ? Due::done : Due::fail))
        story_.violation("a notification that contradicts how the boot ended");
    notification_ = Due::nothing;
}

int64_t Driver::notify_done(Call&) {
    notify(true);
    return 0;
}

int64_t Driver::notify_fail(Call&) {
    notify(false);
    return 0;
}

int64_t Driver::status(Call&) {
    stage_.end_hang_up();
    return state_;
}

int64_t Driver::panic(Call& call) {
    char reason[kCrashReasonSize];
    if (!call.memory.read(call.argument, reason, sizeof(reason))) return -EFAULT;
    const size_t length = strnlen(reason, sizeof(reason));
    if (length == sizeof(reason)) story_.violation("a crash reason that is not terminated");
    call.detail = " \"" + std::string(reason, length) + "\"";
    if (call.refused) return 0;
    story_.crash_sentence.assign(reason, length);
    if (scenario_.driver.panic == "upload") stage_.panic();
    return 0;
}

int64_t Driver::load_image(Call& call) {
    cp_image image{};
    if (!call.memory.read(call.argument, &image, sizeof(image))) return -EFAULT;
    call.shown = false;
    call.detail = fmt::format(" size={} m_offset=0x{:08x} b_offset=0x{:08x} mode={} len={}",
                              image.size, image.m_offset, image.b_offset, image.mode, image.len);
    if (call.refused) return 0;
    if (!powered_) story_.violation("an image is loaded while the modem is off");
    return take_chunk(image, call);
}

// The integrated modem's images come in chunks, the external modem's loader in one piece.
int64_t Driver::take_chunk(const cp_image& image, Call& call) {
    const bool whole = scenario_.external();
    const uint64_t len = whole ? image.size : image.len;
    const bool goes_on = image_ != nullptr && !whole && image.size == first_chunk_.size &&
                         image.b_offset == first_chunk_.b_offset &&
                         image.mode == first_chunk_.mode &&
                         image.m_offset == first_chunk_.m_offset + image_bytes_ &&
                         (image_bytes_ < image.size || len == 0);
    if (!goes_on && !begin_image(image)) return 0;
    if (image.m_offset + len > kModemMemory || image_bytes_ + len > image.size) {
        story_.violation("a chunk that goes beyond its image or the modem's memory");
        return 0;
    }
    if (!call.memory.read(image.image_addr, modem_memory_ + image.m_offset, len)) return -EFAULT;
    chunks_++;
    const bool complete_before = image_bytes_ == image.size && chunks_ > 1;
    image_bytes_ += len;
    story_.advance_transfer(len);
    if (image_bytes_ == image.size && !complete_before) end_image();
    return 0;
}

bool Driver::begin_image(const cp_image& image) {
    if (image_ != nullptr && image_bytes_ != image_->size)
        story_.violation(image_name(*image_) + " was left incomplete");
    image_ = scenario_.external() ? partition_.find(kTocBoot)
                                  : partition_.find(image.m_offset, image.b_offset, image.size);
    if (image_ == nullptr || image_->size != image.size) {
        story_.violation("a chunk that belongs to no image of the table");
        image_ = nullptr;
        return false;
    }
    first_chunk_ = image;
    image_bytes_ = chunks_ = 0;
    story_.begin_transfer(fmt::format("image {}", image_name(*image_)), image.size);
    return true;
}

void Driver::end_image() {
    story_.tell("daemon", "driver",
                fmt::format("image {}, {} to 0x{:08x} of modem memory", image_name(*image_),
                            human_size(image_bytes_), first_chunk_.m_offset));
    if (!partition_.holds(*image_, 0, modem_memory_ + first_chunk_.m_offset, image_bytes_))
        story_.violation(
                fmt::format("{} in modem memory differs from its file", image_name(*image_)));
    loaded_[first_chunk_.m_offset] = first_chunk_.size;
}

int64_t Driver::check_security(Call& call) {
    cp_security_req req{};
    if (!call.memory.read(call.argument, &req, sizeof(req))) return -EFAULT;
    call.detail = fmt::format(" {} 0x{:x} 0x{:x}", req.mode, req.param1, req.param2);
    if (req.param3 != 0) story_.violation("a security request with a third parameter");
    if (call.refused) return 0;
    const auto& table = partition_.table();
    switch (req.mode) {
        case SECURITY_NON_SECURE:
            if (req.param1 != 0 || req.param2 != 0)
                story_.violation("the non-secure request takes no parameters");
            break;
        case SECURITY_SECURE:
        case SECURITY_DUMP:
            if (table.size() < 2 || req.param1 != table[1].size)
                story_.violation("a security request with another size of the boot image");
            verified_ = true;
            break;
        case SECURITY_TOC:
        case SECURITY_VSS: {
            const auto found = loaded_.find(req.param1);
            if (req.param2 != 0 && (found == loaded_.end() || found->second != req.param2))
                story_.violation("a security request for an image that was never loaded");
            break;
        }
        default:
            story_.violation("a security request with an unknown mode");
    }
    return 0;
}

int64_t Driver::get_srinfo(Call& call) {
    srinfo_buf buf{};
    if (!call.memory.read(call.argument, &buf, sizeof(buf))) return -EFAULT;
    if (buf.len != sizeof(buf.data))
        story_.violation(fmt::format("room for a record of {} bytes", buf.len));
    const std::string& text = scenario_.driver.srinfo;
    if (!text.empty()) {
        memset(buf.data, ' ', sizeof(buf.data));
        fill_seeded(region_seed("srinfo"), 0, buf.data, kSrinfoHeader);
        memcpy(buf.data + kSrinfoHeader, text.data(),
               std::min(text.size(), sizeof(buf.data) - kSrinfoHeader));
    }
    const size_t size = text.empty() ? 0 : kSrinfoHeader + text.size();
    buf.len = static_cast<uint32_t>(size);
    call.detail = fmt::format(" len={}", buf.len);
    if (!call.refused && !call.memory.write(call.argument, &buf, sizeof(buf))) return -EFAULT;
    return 0;
}

int64_t Driver::set_srinfo(Call& call) {
    srinfo_buf buf{};
    if (!call.memory.read(call.argument, &buf, sizeof(buf))) return -EFAULT;
    const size_t length = std::min<size_t>(buf.len, sizeof(buf.data));
    if (buf.len == 0 || buf.len > sizeof(buf.data))
        story_.violation(fmt::format("a record of {} bytes is handed back", buf.len));
    call.detail =
            fmt::format(" len={} ", buf.len) + std::string(buf.data, std::min<size_t>(length, 200));
    return 0;
}

int64_t Driver::log_dump(Call& call) {
    cp_log_dump record{};
    if (!call.memory.read(call.argument, &record, sizeof(record))) return -EFAULT;
    const std::string name(record.name, strnlen(record.name, sizeof(record.name)));
    call.detail = fmt::format(" {} {}", name, record.idx);
    if (record.idx >= std::size(kRegionNames) || name != kRegionNames[record.idx]) {
        story_.violation("a region's name that does not match its number");
        return -EINVAL;
    }
    if (call.refused) return 0;
    const Region& region = scenario_.driver.regions.at(name);
    record.size = static_cast<uint32_t>(region.size);
    if (!call.memory.write(call.argument, &record, sizeof(record))) return -EFAULT;
    stage_.flush(Node::dump);
    region_ = name;
    region_sent_ = 0;
    region_end_ = static_cast<uint64_t>(region.delivers.value_or(region.size));
    story_.begin_transfer("region " + name, region_end_);
    stage_.pump(Node::dump);
    return 0;
}

uint64_t Driver::region_seed(const std::string& name) const {
    return static_cast<uint64_t>(scenario_.seed) + std::hash<std::string>()(name);
}

bool Driver::next(Node node, Packet& packet) {
    if (node == Node::boot || region_sent_ == region_end_) return loader_.next(node, packet);
    const Region& region = scenario_.driver.regions.at(region_);
    const uint64_t size =
            std::min(static_cast<uint64_t>(region.packet), region_end_ - region_sent_);
    packet.resize(size);
    fill_seeded(region_seed(region_), region_sent_, packet.data(), size);
    region_sent_ += size;
    story_.advance_transfer(size);
    return true;
}

int64_t Driver::crash_reason(Call& call) {
    cp_crash_reason record{};
    record.owner = static_cast<int32_t>(scenario_.driver.owner);
    const std::string& text = scenario_.driver.reason;
    memcpy(record.text, text.data(), std::min(text.size(), sizeof(record.text)));
    if (call.refused) return 0;
    return call.memory.write(call.argument, &record, sizeof(record)) ? 0 : -EFAULT;
}

int64_t Driver::version(Call& call) {
    lnkm_version record{};
    const std::string& text = scenario_.driver.version;
    memcpy(record.text, text.data(), std::min(text.size(), sizeof(record.text)));
    if (call.refused) return 0;
    return call.memory.write(call.argument, &record, sizeof(record)) ? 0 : -EFAULT;
}

}  // namespace rvd::lab
