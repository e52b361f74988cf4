// The modem's driver. It answers every request of both nodes, keeps the modem's state and memory,
// and checks what a real driver relies on: the order of requests, sizes, and unchanged images.

#include <errno.h>
#include <fmt/format.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <optional>

#include "bootdump/lnkm.h"
#include "lab/modem/images.h"
#include "lab/modem/loader.h"

namespace rvd::lab {

namespace {

// States that the daemon has no name for.
constexpr int kStateBooting = 3;
constexpr int kStateOnline = 4;

constexpr size_t kSrinfoHeader = 16;
constexpr size_t kShownRecord = 200;  // characters of a silent-reset record

const char* state_name(int state) {
    static const std::map<int, const char*> names = {
            {MODEM_STATE_OFF, "off"},     {MODEM_STATE_CRASH_RESET, "crash reset"},
            {MODEM_STATE_CRASH, "crash"}, {MODEM_STATE_CRASH_WATCHDOG, "watchdog crash"},
            {kStateBooting, "booting"},   {kStateOnline, "online"}};
    const auto found = names.find(state);
    return found == names.end() ? "unknown" : found->second;
}

const char* mode_name(uint32_t mode) {
    return mode == CP_BOOT_MODE_NORMAL ? "normal" : mode == CP_BOOT_MODE_DUMP ? "dump" : "?";
}

template <size_t kSize>
std::string text_of(const char (&field)[kSize]) {
    return {field, strnlen(field, kSize)};
}

enum Nodes { kBoot = 1, kDump = 2, kBoth = 3 };

class Driver : public Modem, private ModelContext {
  public:
    explicit Driver(const ModelContext& context)
        : ModelContext(context), state_(static_cast<int>(scenario.driver.state)) {}

    int64_t request(Node node, unsigned long number, uint64_t argument,
                    const Memory& memory) override;

    // The daemon reports a boot as failed once COMPLETE_NORMAL_BOOTUP has failed, and makes no
    // second report where the first one failed.
    void request_failed(unsigned long number) override {
        if (number == IOCTL_COMPLETE_NORMAL_BOOTUP) expected_report_ = Report::fail;
        if (number == IOCTL_NOTIFY_BOOT_DONE || number == IOCTL_NOTIFY_BOOT_FAIL)
            expected_report_ = Report::none;
    }

    void receive(Node node, const Packet& packet) override {
        if (loader_ && loader_->node == node) return loader_->receive(packet);
        story.violation("{} bytes written to the {} node while no boot loader runs", packet.size(),
                        node_name(node));
    }

    bool next_packet(Node node, Packet& packet) override {
        if (node == Node::boot || region_sent_ == region_end_)
            return loader_ && loader_->node == node && loader_->next_packet(packet);
        const auto room = static_cast<uint64_t>(scenario.driver.regions.at(region_).packet);
        packet.resize(std::min(room, region_end_ - region_sent_));
        fill_seeded(content_of(scenario, region_).seed, region_sent_, packet.data(), packet.size());
        region_sent_ += packet.size();
        story.advance_transfer(packet.size());
        return true;
    }

    void change_state(int state) override {
        state_ = state;
        story.add_message("driver", "daemon",
                          fmt::format("the modem is in state {} ({})", state, state_name(state)));
        backend.hang_up(Node::boot);
    }

    int state() const override { return state_; }

    void daemon_ended() override {
        expected_report_ = Report::none;
        images_->reset();
        region_sent_ = region_end_;
    }

    void reboot() override {
        state_ = MODEM_STATE_OFF;
        powered_ = false;
        expected_report_ = Report::none;
        images_.emplace(context());
        loader_.reset();
    }

    // A request being handled: its record, its text for the story, and whether it fails.
    struct Call {
        unsigned long number;
        const Memory& memory;
        bool fails = false, shown = true;
        int64_t result = 0;
        std::string detail = {};
        union {
            srinfo_buf srinfo;
            uint32_t mode;
            char reason[kCrashReasonSize];
            cp_image image;
            cp_security_req security;
            cp_log_dump dump;
            cp_crash_reason crash;
            lnkm_version version;
        } record = {};
    };

    struct Handler {
        unsigned long number;
        const char* name;
        Nodes nodes;  // on which it is valid
        bool strict;  // only 0 is success
        void (Driver::*handler)(Call&);
        size_t in = 0, out = 0;  // bytes of the record, if the request number encodes no size
    };

    static const Handler kHandlers[];

  private:
    const ModelContext& context() const { return *this; }

    void power_on(Call& call) {
        if (call.fails) return;
        powered_ = true;
        images_->reset();
        state_ = kStateBooting;
    }

    void power_off(Call& call) {
        if (call.fails) return;
        powered_ = false;
        state_ = MODEM_STATE_OFF;
        loader_.reset();
    }

    void power_reset(Call& call) {
        call.detail = fmt::format(" {}", mode_name(call.record.mode));
        if (call.fails) return;
        loader_.reset();
        images_->reset();
        powered_ = powered_ || call.record.mode == CP_BOOT_MODE_DUMP;
        backend.discard_unread(Node::dump);
    }

    void start_loader(Call& call) {
        const uint32_t mode = call.record.mode;
        call.detail = fmt::format(" {}", mode_name(mode));
        if (call.fails) return;
        if (mode > CP_BOOT_MODE_DUMP) story.violation("the loader is started in an unknown mode");
        if (!powered_) story.violation("the loader is started while the modem is off");
        if (!images_->complete())
            story.violation("the loader is started before its images are complete");
        if (!images_->verified() && !scenario.external())
            story.violation("the loader is started before its images are verified");
        loader_ = lab::start_loader(context(), static_cast<cp_boot_mode>(mode));
    }

    void complete(Call& call) {
        expected_report_ = call.fails ? Report::fail : Report::done;
        if (!loader_ || !loader_->finished())
            story.violation("boot-up is reported as complete before the handshake has ended");
        if (!call.fails) state_ = kStateOnline;
    }

    void notify(Call& call) {
        if (expected_report_ !=
            (call.number == IOCTL_NOTIFY_BOOT_DONE ? Report::done : Report::fail))
            story.violation("the notification contradicts the result of the boot");
        expected_report_ = Report::none;
    }

    void status(Call& call) {
        backend.clear_hang_up();
        call.result = state_;
    }

    void panic(Call& call) {
        const std::string reason = text_of(call.record.reason);
        if (reason.size() == kCrashReasonSize)
            story.violation("the crash reason is not NUL-terminated");
        call.detail = " \"" + reason + "\"";
        if (call.fails) return;
        story.panic_reason = reason;
        if (scenario.driver.panic == "upload") backend.panic();
    }

    void load_image(Call& call) {
        const cp_image& image = call.record.image;
        call.shown = false;
        call.detail =
                fmt::format(" size={} m_offset=0x{:08x} b_offset=0x{:08x} mode={} len={}",
                            image.size, image.m_offset, image.b_offset, image.mode, image.len);
        if (call.fails) return;
        if (!powered_) story.violation("an image is loaded while the modem is off");
        if (!images_->load(image, call.memory)) call.result = -EFAULT;
    }

    void check_security(Call& call) {
        const cp_security_req& req = call.record.security;
        call.detail = fmt::format(" {} 0x{:x} 0x{:x}", req.mode, req.param1, req.param2);
        if (req.param3 != 0) story.violation("the third parameter of a security request is not 0");
        if (!call.fails) images_->check(req);
    }

    void get_srinfo(Call& call) {
        srinfo_buf& buf = call.record.srinfo;
        if (buf.len != sizeof(buf.data))
            story.violation("a buffer of {} bytes for a silent-reset record", buf.len);
        const std::string& text = scenario.driver.srinfo;
        size_t size = 0;
        if (!text.empty()) {
            size = kSrinfoHeader + text.size();
            memset(buf.data, ' ', sizeof(buf.data));
            fill_seeded(static_cast<uint64_t>(scenario.seed), 0, buf.data, kSrinfoHeader);
            text.copy(buf.data + kSrinfoHeader, sizeof(buf.data) - kSrinfoHeader);
        }
        buf.len = static_cast<uint32_t>(size);
        call.detail = fmt::format(" len={}", buf.len);
    }

    void set_srinfo(Call& call) {
        const srinfo_buf& buf = call.record.srinfo;
        if (buf.len == 0 || buf.len > sizeof(buf.data))
            story.violation(
                    fmt::format("a silent-reset record of {} bytes is handed back", buf.len));
        const size_t shown = std::min<size_t>({buf.len, sizeof(buf.data), kShownRecord});
        call.detail = fmt::format(" len={} {}", buf.len, std::string_view(buf.data, shown));
    }

    void log_dump(Call& call) {
        cp_log_dump& record = call.record.dump;
        const std::string name = text_of(record.name);
        call.detail = fmt::format(" {} {}", name, record.idx);
        if (record.idx >= std::size(kRegionNames) || name != kRegionNames[record.idx]) {
            story.violation("the name of a region does not match its index");
            call.result = -EINVAL;
        }
        if (call.fails || call.result != 0) return;
        const Region& region = scenario.driver.regions.at(name);
        record.size = static_cast<uint32_t>(region.size);
        backend.discard_unread(Node::dump);
        region_ = name;
        region_sent_ = 0;
        region_end_ = static_cast<uint64_t>(region.delivers.value_or(region.size));
        story.begin_transfer("region " + name, region_end_);
        backend.send_packets(Node::dump);
    }

    void crash_reason(Call& call) {
        call.record.crash.owner = static_cast<int32_t>(scenario.driver.owner);
        scenario.driver.reason.copy(call.record.crash.text, sizeof(call.record.crash.text));
    }

    void version(Call& call) {
        scenario.driver.version.copy(call.record.version.text, sizeof(call.record.version.text));
    }

    int state_;
    bool powered_ = false;
    enum class Report { none, done, fail } expected_report_ = Report::none;
    std::unique_ptr<Loader> loader_;  // while it runs
    std::optional<Images> images_{std::in_place, context()};

    // The region being read from the dump node.
    std::string region_;
    uint64_t region_sent_ = 0, region_end_ = 0;
};

const Driver::Handler Driver::kHandlers[] = {
        {IOCTL_POWER_ON, "POWER_ON", kBoot, false, &Driver::power_on},
        {IOCTL_POWER_OFF, "POWER_OFF", kBoot, true, &Driver::power_off},
        {IOCTL_POWER_RESET, "POWER_RESET", kBoot, false, &Driver::power_reset},
        {IOCTL_START_CP_BOOTLOADER, "START_CP_BOOTLOADER", kBoot, false, &Driver::start_loader},
        {IOCTL_COMPLETE_NORMAL_BOOTUP, "COMPLETE_NORMAL_BOOTUP", kBoot, false, &Driver::complete},
        {IOCTL_NOTIFY_BOOT_FAIL, "NOTIFY_BOOT_FAIL", kBoot, false, &Driver::notify},
        {IOCTL_NOTIFY_BOOT_DONE, "NOTIFY_BOOT_DONE", kBoot, false, &Driver::notify},
        {IOCTL_GET_CP_STATUS, "GET_CP_STATUS", kBoot, false, &Driver::status},
        {IOCTL_TRIGGER_KERNEL_PANIC, "TRIGGER_KERNEL_PANIC", kBoth, false, &Driver::panic,
         kCrashReasonSize},
        {IOCTL_LOAD_CP_IMAGE, "LOAD_CP_IMAGE", kBoot, true, &Driver::load_image},
        {IOCTL_CHECK_SECURITY, "CHECK_SECURITY", kBoot, true, &Driver::check_security},
        {IOCTL_GET_SRINFO, "GET_SRINFO", kBoot, false, &Driver::get_srinfo, sizeof(srinfo_buf),
         sizeof(srinfo_buf)},
        {IOCTL_SET_SRINFO, "SET_SRINFO", kBoot, false, &Driver::set_srinfo, sizeof(srinfo_buf)},
        {IOCTL_GET_LOG_DUMP, "GET_LOG_DUMP", kDump, false, &Driver::log_dump},
        {IOCTL_GET_CP_CRASH_REASON, "GET_CP_CRASH_REASON", kDump, false, &Driver::crash_reason},
        {IOCTL_GET_LNKM_VERSION, "GET_LNKM_VERSION", kDump, false, &Driver::version},
};

int64_t Driver::request(Node node, unsigned long number, uint64_t argument, const Memory& memory) {
    const auto* entry = std::find_if(std::begin(kHandlers), std::end(kHandlers),
                                     [&](const Handler& known) { return known.number == number; });
    if (entry == std::end(kHandlers) ||
        (entry->nodes & (node == Node::boot ? kBoot : kDump)) == 0) {
        story.violation("request 0x{:08X} on the {} node", number, node_name(node));
        return -ENOTTY;
    }
    if (expected_report_ != Report::none && entry->handler != &Driver::notify) {
        story.violation(std::string(entry->name) +
                        " before the boot is reported as done or failed");
        expected_report_ = Report::none;
    }
    const Answer* answer = first_triggered(scenario.driver.answers, [&](const Answer& given) {
        return given.request == entry->name;
    });
    Call call{number, memory};
    call.fails =
            answer != nullptr && (answer->result < 0 || (entry->strict && answer->result != 0));
    const size_t size = _IOC_SIZE(number);
    const size_t in = (_IOC_DIR(number) & _IOC_WRITE) != 0 ? size : entry->in;
    const size_t out = (_IOC_DIR(number) & _IOC_READ) != 0 ? size : entry->out;
    if (memory.read(argument, &call.record, in)) {
        (this->*entry->handler)(call);
    } else {
        call.result = -EFAULT;
    }
    if (call.result >= 0 && !call.fails && !memory.write(argument, &call.record, out))
        call.result = -EFAULT;
    if (answer != nullptr) call.result = answer->result;
    std::string text = entry->name + call.detail;
    if (call.result != 0) text += fmt::format(" = {}", call.result);
    story.request("driver", text, call.shown || call.result != 0);
    return call.result;
}

}  // namespace

std::vector<std::string> request_names() {
    std::vector<std::string> names;
    for (const Driver::Handler& handler : Driver::kHandlers)
        names.emplace_back(handler.name);
    return names;
}

std::unique_ptr<Modem> make_modem(const ModelContext& context) {
    return std::make_unique<Driver>(context);
}

}  // namespace rvd::lab
