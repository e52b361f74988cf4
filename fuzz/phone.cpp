// A boot and a dump of either modem, from the opening of the nodes to the kernel panic. The input
// writes the files that the daemon reads, chooses the calls that fail, and then steers the driver
// and the boot loader, whose answers are right wherever it says 0.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include "bootdump/BootDump.h"
#include "fuzz/support.h"
#include "log/Log.h"
#include "main/Container.h"
#include "protocol/link.h"
#include "srinfo/Srinfo.h"

using namespace rvd;
using namespace rvd::fuzz;

namespace {

constexpr char kLogDir[] = "/data/vendor/log/rvd";

// What the next packets differ in from those of a modem that works.
enum deviation : uint8_t { NONE, SILENT, HANG_UP, RAW, WORD, FIELD, CUT, DEVIATIONS };

// The driver and the boot loader behind all nodes that the daemon has open.
class Peer {
  public:
    explicit Peer(Input* input) : input_(input) {}
    ~Peer() {
        for (const int node : nodes_)
            close(node);
    }

    int open_node() {
        int ends[2];
        require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends) == 0,
                "there is a link");
        nodes_.push_back(ends[1]);
        return ends[0];
    }

    int answer(unsigned request, void* record);
    // Empties the nodes, so that the daemon's next packet has room.
    void listen();
    // Answers the last word heard; the daemon waits.
    void act();

    std::string payloads;  // of all frames sent, as a dump file may hold a piece of them

  private:
    void send(const void* bytes, size_t size);

    Input* input_;
    std::vector<int> nodes_;
    size_t talking_ = 0;  // index of the node that the last packet came from
    uint32_t heard_ = 0;
    uint32_t region_ = 0;  // bytes of a memory region that the daemon has yet to read
    uint32_t frames_ = 0, frame_size_ = 0;
    deviation deviation_ = NONE;
};

void Peer::listen() {
    for (size_t i = 0; i < nodes_.size(); ++i) {
        udl_frame packet;
        for (ssize_t size; (size = recv(nodes_[i], &packet, sizeof(packet), MSG_DONTWAIT)) > 0;) {
            talking_ = i;
            if (size < int{UDL_HEADER} || packet.curr_frame == packet.num_frames)
                heard_ = packet.cmd;
        }
    }
}

void Peer::send(const void* bytes, size_t size) {
    if (size == 0) return;
    std::string packet(static_cast<const char*>(bytes), size);
    switch (std::exchange(deviation_, NONE)) {
        case SILENT:
            return;
        case HANG_UP:
            shutdown(nodes_[talking_], SHUT_RDWR);
            return;
        case RAW:
            packet = input_->take_bytes(input_->take<uint8_t>());
            break;
        case WORD:
            packet.replace(0, 4, input_->take_bytes(4));
            break;
        case FIELD:
            packet[input_->take<uint8_t>() % packet.size()] = input_->take<char>();
            break;
        case CUT:
            packet.resize(input_->take<uint16_t>() % packet.size());
            break;
        default:
            break;
    }
    if (::send(nodes_[talking_], packet.data(), packet.size(), MSG_NOSIGNAL) < int{UDL_HEADER})
        return;
    uint32_t length = 0;
    memcpy(&length, packet.data() + offsetof(udl_frame, len), sizeof(length));
    payloads += packet.substr(UDL_HEADER, length);
}

void Peer::act() {
    listen();
    if (nodes_.empty()) return;
    deviation_ = static_cast<deviation>(input_->take<uint8_t>() % DEVIATIONS);
    if (heard_ == 0 && region_ == 0) return;
    if (heard_ == 0) {
        const std::string bytes(std::min(region_, 4096u), 'r');
        talking_ = 0;  // the dump node is opened first
        region_ -= static_cast<uint32_t>(bytes.size());
        return send(bytes.data(), bytes.size());
    }
    const uint32_t word = std::exchange(heard_, 0);
    const uint32_t answer = word ^ UDL_REQ ^ UDL_RESP;
    if (word == udl_request(UDL_STAGE_DUMP, UDL_CMD_START)) {
        const std::string reason(8u * input_->take<uint8_t>(), 'w');
        const uint32_t steps = input_->take<uint8_t>() % 4;
        frames_ = 1 + input_->take<uint8_t>() % 3;
        frame_size_ = input_->take<uint16_t>() % (UDL_MSS + 1);
        const udl_dump_info info = {steps * frames_ * frame_size_, steps,
                                    static_cast<uint32_t>(reason.size())};
        send(&answer, sizeof(answer));
        send(&info, sizeof(info));
        send(reason.data(), reason.size());
    } else if (word > udl_request(UDL_STAGE_DUMP, UDL_CMD_START) &&
               word < udl_request(UDL_STAGE_DUMP, UDL_CMD_DONE)) {
        udl_frame frame = {answer, frames_, 0, frame_size_, {}};
        while (frame.curr_frame++ < frames_) {
            memset(frame.data, static_cast<int>(answer + frame.curr_frame), sizeof(frame.data));
            send(&frame, UDL_HEADER + frame_size_);
        }
    } else {
        send(&answer, sizeof(answer));
    }
}

void check_plan(const std_boot_args& boot) {
    const auto slots_end = boot.fd + kFdSlots;
    for (const int32_t* fd = boot.fd; fd != slots_end; ++fd)
        require(*fd == -1 || std::find(fd + 1, slots_end, *fd) == slots_end, "a slot is its own");
    require(boot.max_stage >= 0 && boot.max_stage <= int32_t{kDloadStages}, "the plan has room");
    for (const std_dload_control& row : boot.dload) {
        require(row.m_off <= kModemOffsetMask, "an offset lies in modem memory");
        require(row.size == 0 || row.fd == -1 || std::find(boot.fd, slots_end, row.fd) != slots_end,
                "an image comes from a file of the record");
    }
}

int Peer::answer(unsigned request, void* record) {
    check_plan(*Container::getStdBoot());
    if (request == IOCTL_LOAD_CP_IMAGE) {
        cp_image image;
        memcpy(&image, record, sizeof(image));
        const volatile char* bytes = reinterpret_cast<const volatile char*>(image.image_addr);
        for (uint32_t i = 0; i < image.len; ++i)
            static_cast<void>(bytes[i]);
    } else if (request == IOCTL_SET_SRINFO) {
        const srinfo_buf* kept = static_cast<const srinfo_buf*>(record);
        require(kept->len - 1 < sizeof(kept->data),
                "a record that is restored has 1 to 4092 bytes");
    } else if (request == IOCTL_TRIGGER_KERNEL_PANIC) {
        require(memchr(record, '\0', kCrashReasonSize) != nullptr, "a crash reason is terminated");
    } else if (request == IOCTL_GET_LOG_DUMP) {
        region_ = static_cast<cp_log_dump*>(record)->size = 97u * input_->take<uint8_t>();
    } else if (request == IOCTL_GET_CP_CRASH_REASON) {
        static_cast<cp_crash_reason*>(record)->owner = input_->take<int8_t>();
        memset(static_cast<cp_crash_reason*>(record)->text, 'o', 2u + 2u * input_->take<uint8_t>());
    } else if (request == IOCTL_GET_LNKM_VERSION) {
        input_->take_bytes(sizeof(lnkm_version))
                .copy(static_cast<char*>(record), sizeof(lnkm_version));
    } else if (request == IOCTL_GET_SRINFO) {
        srinfo_buf* fetched = static_cast<srinfo_buf*>(record);
        memcpy(fetched->data + 16, "{\"JVER", 6);
        fetched->len = input_->take<uint16_t>();
        const uint16_t at = input_->take<uint16_t>();
        fetched->data[at % sizeof(fetched->data)] = '}';
    }
    const uint8_t outcome = input_->take<uint8_t>();
    errno = EIO;
    if (outcome != 0) region_ = 0;
    return outcome == 0 ? 0 : outcome == 0xFE ? input_->take<int>() : outcome < 0x80 ? outcome : -1;
}

// Empties the disk, and writes what the input has for it.
void write_files(Input* input, const RvdArgs& args, uint16_t choice) {
    for (const char* directory : {kLogDir, "/efs"}) {
        for (const auto& entry : std::filesystem::directory_iterator(directory))
            std::filesystem::remove_all(entry);
    }
    std::filesystem::create_directory(std::string(kLogDir) + "/err");
    const std::string last = std::string(kLogDir) + "/err/last_sr_info_" + args.node_prefix;
    const std::string history = std::string(kLogDir) + "/sr_info_" + args.node_prefix;
    if (choice & 0x20) test::write_file("/efs/nv", "the modem's own");
    if (choice & 0x200) test::write_file(last, std::string(input->take_bytes(choice >> 8)));
    if (choice & 0x400) test::write_file(history, std::string(kSrinfoLogLimit + 1, 'x'));
    test::write_file("/efs/factory.prop", "sims=" + std::string(input->take_bytes(2)));
    test::set_property("vendor.rvd.rfs_check_done", "1");
    test::set_property("vendor.rvd.first_xmit_done", choice & 0x40 ? "1" : "0");
    test::set_property("ro.vtc.sales_code", choice & 0x80 ? "TMB" : "");
    test::write_file(args.partition_path, std::string(input->take_bytes(input->take<uint16_t>())));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const uint16_t choice = input.take<uint16_t>();
    Run run(choice & 0x01);
    RvdArgs& args = *Container::getRvdArgs();
    if (choice & 0x02) args.options |= OPT_VERIFY_VSS;
    if (choice & 0x04) args.options |= OPT_REINIT_VSS;
    if (choice & 0x08) args.nv_data_path[0] = '\0';
    if (choice & 0x10) args.boot_link = LINK_DPRAM;
    debug_level = 1;
    const uint16_t faults[] = {input.take<uint16_t>(), input.take<uint16_t>()};
    write_files(&input, args, choice);
    {
        Peer peer(&input);
        test::kernel().driver = [&](int, unsigned request, void* record) {
            return peer.answer(request, record);
        };
        test::kernel().on_wait = [&] { peer.act(); };
        run.open_node = [&] { return peer.open_node(); };
        std::copy(std::begin(faults), std::end(faults), run.faults);
        Container::getBootDump()->boot();
        Container::getBootDump()->dump();
        std::fill(std::begin(run.faults), std::end(run.faults), uint16_t{0});
        const std::string head = std::string("cpcrash_") + args.node_prefix + "_dump_2";
        for (const std::string& name : test::list(kLogDir)) {
            if (name.find(head) != 0) continue;
            const std::string saved = test::read_file(std::string(kLogDir) + "/" + name);
            require(peer.payloads.find(saved) != std::string::npos,
                    "what is saved is what was sent");
        }
    }
    require(is_text(args.crash_reason), "the reason is terminated");
    return 0;
}
