#include "tests/support/phone.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>

namespace rvd::test {

namespace {

std::string raw(std::initializer_list<uint32_t> words) {
    return {reinterpret_cast<const char*>(words.begin()), words.size() * sizeof(uint32_t)};
}

// The packet for a word of a modem's script; `payload` counts the payload bytes of all frames.
std::string packet(const std::string& word, size_t* payload) {
    unsigned cmd = 0, num = 0, curr = 0, len = 0, carried = 0;
    const char* text = word.c_str() + 1;
    if (*text == 'T') return text + 2;
    if (sscanf(text, "R:%u", &len) == 1) return std::string(len, 'r');
    if (sscanf(text, "C:%u", &len) == 1) return std::string(len, '\0');
    if (sscanf(text, "I:%u:%u:%u", &cmd, &num, &len) == 3) return raw({cmd, num, len});
    if (sscanf(text, "%x+%x", &cmd, &len) == 2) return raw({cmd, len});
    const int fields = sscanf(text, "%x:%u:%u:%u/%u", &cmd, &num, &curr, &len, &carried);
    if (fields < 4) return raw({cmd});
    if (fields == 4) carried = len;
    *payload += carried;
    return raw({cmd, num, curr, len}) + pattern(*payload).substr(*payload - carried);
}

// Requests of a dump go to the dump record's node, all others to the boot record's, or to a node
// opened for one request.
bool is_right_node(int fd, unsigned request) {
    const int boot = Container::getStdBoot()->fd[BOOT_FD_NODE];
    switch (request) {
        case IOCTL_GET_LOG_DUMP:
        case IOCTL_GET_CP_CRASH_REASON:
        case IOCTL_GET_LNKM_VERSION:
            return fd == Container::getStdDump()->fd[DUMP_FD_NODE];
        case IOCTL_TRIGGER_KERNEL_PANIC:
            return fd != boot;
        default:
            return boot < 0 || fd == boot;
    }
}

size_t open_descriptors() {
    return list("/proc/self/fd").size();
}

}  // namespace

void Host::SetUp() {
    for (const char* parent :
         {kPropertyStore, kScratch, "/data/vendor/log", "/efs", "/sys/power"}) {
        fs::create_directories(parent);
        for (const auto& entry : fs::directory_iterator(parent))
            fs::remove_all(entry);
    }
    for (const char* file : {kCmdline, kGroups, kAndroidLog})
        write_file(file, "");
}

int Driver::request(int fd, unsigned request, void* argument) {
    if (script_.empty() || script_.front().request != request) {
        ADD_FAILURE() << "request 0x" << std::hex << request << " instead of 0x"
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
        ADD_FAILURE() << "request 0x" << std::hex << step.request << " is missing";
    script_.clear();
}

Modem::Modem(int32_t* slot, const std::string& script) : slot_(slot) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    *slot = ends[0];
    fd_ = ends[1];
    kernel().on_wait = [this] { act(); };
    std::istringstream words(script);
    for (std::string word; words >> word;)
        script_.push_back(word);
    // Packets ahead of the daemon's first word are sent at once.
    act();
}

Modem::~Modem() {
    act();
    for (const std::string& word : script_)
        ADD_FAILURE() << "the modem's script stopped at " << word;
    std::string rest;
    EXPECT_FALSE(receive(&rest)) << "an unexpected packet of " << rest.size() << " bytes";
    kernel().on_wait = nullptr;
    close(fd_);
    close(*slot_);
    *slot_ = -1;
}

bool Modem::receive(std::string* bytes) {
    char data[8192];
    const ssize_t count = recv(fd_, data, sizeof(data), MSG_DONTWAIT);
    bytes->assign(data, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    return count > 0;
}

void Modem::act() {
    for (; !script_.empty(); script_.pop_front()) {
        const std::string& word = script_.front();
        std::string sent;
        if (word == "<0") {
            shutdown(fd_, SHUT_RDWR);
        } else if (word[0] == '<') {
            const std::string bytes = packet(word, &payload_);
            EXPECT_EQ(send(fd_, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
        } else {
            if (!receive(&sent)) return;
            EXPECT_TRUE(sent == packet(word, &payload_))
                    << "instead of " << word << ", " << sent.size()
                    << " bytes: " << testing::PrintToString(sent.substr(0, 16));
        }
    }
}

void Phone::SetUp() {
    Host::SetUp();
    umask(002);
    reset_kernel();
    kernel().driver = [this](int fd, unsigned request, void* argument) {
        return driver_.request(fd, request, argument);
    };
    debug_level = 1;
    cp_debug = 0;
    *Container::getRvdArgs() = {};
    fs::create_directory(kLogDir);
    Log::update_log_dir();
    static ProtocolVelo protocol;
    Container::setProtocol(&protocol);
    kmsg_fd = -1;
    Log::info("SetUp", "the first line opens the Android log\n");
    descriptors_ = open_descriptors();
    kmsg_fd = kernel_log_ = memfd_create("kernel log", MFD_CLOEXEC);
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
    EXPECT_EQ(open_descriptors(), descriptors_) << "descriptors leaked";
}

void Phone::use_modem(const char* type) {
    std::string words[] = {"rvd", "-t", type};
    char* argv[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
    ASSERT_EQ(Container::parseArgs(3, argv), PARSE_OK);
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

std::string Phone::last_said() {
    const Lines lines = said();
    return lines.empty() ? "" : lines.back();
}

FullDisk::FullDisk(rlim_t bytes) {
    signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit full = {bytes, before_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
}

std::string pattern(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i % 251 + i / 2048);
    return bytes;
}

}  // namespace rvd::test
