#include "tests/support/phone.h"

#include <errno.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "bootdump/BootDump.h"
#include "log/Log.h"
#include "protocol/ProtocolVelo.h"
#include "tests/support/private_root.h"

namespace rvd::test {

namespace fs = std::filesystem;

namespace {

std::string raw(std::initializer_list<uint32_t> words) {
    return {reinterpret_cast<const char*>(words.begin()), words.size() * sizeof(uint32_t)};
}

// A request of the dump record's goes to its node; of the others to the boot record's, or to a node
// opened for the purpose.
bool is_right_node(int fd, unsigned request) {
    switch (request) {
        case IOCTL_GET_LOG_DUMP:
        case IOCTL_GET_CP_CRASH_REASON:
        case IOCTL_GET_LNKM_VERSION:
            return fd == Container::getStdDump()->fd[DUMP_FD_NODE];
        case IOCTL_TRIGGER_KERNEL_PANIC:
            return fd != Container::getStdBoot()->fd[BOOT_FD_NODE];
        default: {
            const int node = Container::getStdBoot()->fd[BOOT_FD_NODE];
            return node < 0 || fd == node;
        }
    }
}

}  // namespace

int Driver::request(int fd, unsigned request, void* argument) {
    if (script_.empty() || script_.front().request != request) {
        ADD_FAILURE() << "request 0x" << std::hex << request << " where the script has 0x"
                      << (script_.empty() ? 0 : script_.front().request);
        errno = ENOTTY;
        return -1;
    }
    EXPECT_TRUE(is_right_node(fd, request)) << "request 0x" << std::hex << request;
    const Step step = script_.front();
    script_.pop_front();
    const int result = step.answer(argument);
    if (result < 0) errno = EIO;
    return result;
}

void Driver::verify() {
    for (const Step& step : script_)
        ADD_FAILURE() << "request 0x" << std::hex << step.request << " never came";
    script_.clear();
}

Modem::Modem(int32_t* slot, const std::string& script) : slot_(slot) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    *slot = ends[0];
    fd_ = ends[1];
    kernel().on_wait = [this] { take_turn(); };
    std::istringstream words(script);
    size_t payload = 0;
    for (std::string word; words >> word;)
        script_.push_back({word[0], word, bytes_of(word.substr(1), &payload)});
    // What comes before the daemon's first word lies ready.
    take_turn();
}

Modem::~Modem() {
    take_turn();
    for (const Step& step : script_)
        ADD_FAILURE() << "the modem got no further than " << step.word;
    std::string rest;
    EXPECT_FALSE(receive(&rest)) << "the modem was also sent " << rest.size() << " bytes";
    kernel().on_wait = nullptr;
    close(fd_);
    close(*slot_);
    *slot_ = -1;
}

std::string Modem::bytes_of(const std::string& word, size_t* payload) {
    unsigned cmd = 0, num = 0, curr = 0, len = 0, carried = 0, crc = 0;
    const char* text = word.c_str();
    if (word[0] == 'T') return word.substr(2);
    if (sscanf(text, "R:%u", &len) == 1) return std::string(len, 'r');
    if (sscanf(text, "C:%u", &len) == 1) return std::string(len, '\0');
    if (sscanf(text, "I:%u:%u:%u", &cmd, &num, &len) == 3) return raw({cmd, num, len});
    if (sscanf(text, "%x+%x", &cmd, &crc) == 2) return raw({cmd, crc});
    const int fields = sscanf(text, "%x:%u:%u:%u/%u", &cmd, &num, &curr, &len, &carried);
    if (fields < 4) return raw({cmd});
    if (fields == 4) carried = len;
    *payload += carried;
    return raw({cmd, num, curr, len}) + pattern(*payload).substr(*payload - carried);
}

bool Modem::receive(std::string* bytes) {
    char packet[8192];
    const ssize_t count = recv(fd_, packet, sizeof(packet), MSG_DONTWAIT);
    bytes->assign(packet, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    return count > 0;
}

void Modem::take_turn() {
    for (; !script_.empty(); script_.pop_front()) {
        const Step& step = script_.front();
        std::string sent;
        if (step.act == '>') {
            if (!receive(&sent)) return;
            EXPECT_TRUE(sent == step.bytes)
                    << step.word << " was expected, not these " << sent.size()
                    << " bytes: " << testing::PrintToString(sent.substr(0, 16));
        } else if (step.word == "<0") {
            shutdown(fd_, SHUT_RDWR);
        } else {
            const ssize_t size = static_cast<ssize_t>(step.bytes.size());
            EXPECT_EQ(send(fd_, step.bytes.data(), step.bytes.size(), 0), size);
        }
    }
}

void Phone::SetUp() {
    umask(002);
    reset_kernel();
    kernel().driver = [this](int fd, unsigned request, void* argument) {
        return driver_.request(fd, request, argument);
    };
    kmsg_fd = -1;
    debug_level = 1;
    cp_debug = 0;
    *Container::getRvdArgs() = {};
    set_cmdline("");
    write_file(kGroups, "");
    for (const char* parent : {"/data/vendor/log", "/efs", "/sys/power"}) {
        for (const auto& entry : fs::directory_iterator(parent))
            fs::remove_all(entry);
    }
    fs::create_directory(kLogDir);
    Log::update_log_dir();
    static ProtocolVelo protocol;
    Container::setProtocol(&protocol);
    Log::info("SetUp", "the Android log opens with the first line\n");
    descriptors_ = open_descriptors();
    kernel_log_ = memfd_create("kernel log", MFD_CLOEXEC);
    kmsg_fd = kernel_log_;
    read_ = 0;
    use_modem("tq720");
    said();
}

void Phone::TearDown() {
    driver().verify();
    kernel().join_detached();
    Container::getBootDump()->std_boot_close_args();
    Container::getBootDump()->std_dump_close_args();
    close(kernel_log_);
    kmsg_fd = STDOUT_FILENO;
    EXPECT_EQ(open_descriptors(), descriptors_) << "descriptors were left open";
}

void Phone::use_modem(const char* type) {
    char program[] = "rvd";
    char option[] = "-t";
    std::string name = type;
    char* words[] = {program, option, name.data(), nullptr};
    ASSERT_EQ(Container::parseArgs(3, words), PARSE_OK);
}

Lines Phone::said() {
    const std::string all = read_file("/proc/self/fd/" + std::to_string(kernel_log_));
    std::istringstream unread(all.substr(read_));
    read_ = all.size();
    Lines lines;
    for (std::string line; std::getline(unread, line);) {
        const size_t head = strlen("<6>lnkm: rvd: ");
        if (line.substr(0, 3) == "<3>") line = "! " + line.substr(line.find(") ", head) + 2);
        if (line.substr(0, 3) == "<6>") line.erase(0, head);
        lines.push_back(line);
    }
    return lines;
}

FullDisk::FullDisk(rlim_t bytes) {
    signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit full = {bytes, before_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
}

std::string Phone::last_said() {
    const Lines lines = said();
    return lines.empty() ? "" : lines.back();
}

void set_property(const std::string& name, const std::string& value) {
    write_file(property_store() + "/" + name, value);
}

std::string property(const std::string& name) {
    return read_file(property_store() + "/" + name);
}

void set_cmdline(const std::string& text) {
    write_file(kCmdline, text);
}

size_t open_descriptors() {
    return list("/proc/self/fd").size();
}

std::string pattern(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i % 251 + i / 2048);
    return bytes;
}

}  // namespace rvd::test
