#include "lab/modem/loader.h"

#include <fmt/format.h>
#include <string.h>

#include <algorithm>
#include <numeric>

namespace rvd::lab {

namespace {

Packet word_packet(uint32_t word) {
    Packet packet(sizeof(word));
    memcpy(packet.data(), &word, sizeof(word));
    return packet;
}

uint32_t first_word(const Packet& packet) {
    uint32_t word = 0;
    if (packet.size() >= sizeof(word)) memcpy(&word, packet.data(), sizeof(word));
    return word;
}

uint32_t response_to(uint32_t request) {
    return UDL_RESP | (request & 0x0FFF);
}

std::string name_of(uint32_t word) {
    return fmt::format("0x{:04X}", word);
}

}  // namespace

void Loader::start(cp_boot_mode mode) {
    stop();
    running_ = true;
    node_ = mode == CP_BOOT_MODE_DUMP ? Node::dump : Node::boot;
    if (mode == CP_BOOT_MODE_DUMP) {
        plan_dump();
    } else if (scenario_.external()) {
        plan_download();
    } else {
        plan_handshake();
    }
}

void Loader::stop() {
    running_ = silent_ = false;
    generation_++;
    plan_.clear();
    outgoing_.clear();
    step_ = 0;
    step_size_ = frame_ = 0;
    image_.clear();
    image_frames_ = 0;
}

void Loader::plan_handshake() {
    plan_.push_back({Kind::word, udl_request(0, UDL_CMD_DONE)});
    plan_.push_back({Kind::word, udl_request(UDL_STAGE_FINISH, UDL_CMD_START)});
}

// The loader itself is stage 0 and closed where the daemon closes it; the table is stage 1, and
// every other image has the stage of its place in the table.
void Loader::plan_download() {
    plan_.push_back({Kind::optional_word, udl_request(0, UDL_CMD_DONE)});
    const auto& table = partition_.table();
    plan_row(1, table[0]);
    for (uint32_t i = 1; i < std::min<size_t>(table.size(), UDL_STAGE_DUMP); i++) {
        if (has_name(table[i], kTocOffset)) {
            plan_.push_back({Kind::word, udl_request(UDL_STAGE_FINISH, UDL_CMD_START)});
            break;
        }
        if (i > 1) plan_row(i, table[i]);
    }
}

void Loader::plan_row(uint32_t stage, const toc_entry& entry) {
    plan_.push_back({Kind::word, udl_request(stage, UDL_CMD_START)});
    plan_.push_back({Kind::frames, udl_request(stage, UDL_CMD_BIN), &entry});
    if (has_name(entry, kTocMain))
        plan_.push_back({Kind::crc, udl_request(stage, UDL_CMD_CRC), &entry});
    plan_.push_back({Kind::word, udl_request(stage, UDL_CMD_DONE)});
}

void Loader::plan_dump() {
    plan_.push_back({Kind::dump_start, udl_request(UDL_STAGE_DUMP, UDL_CMD_START)});
    const auto steps = static_cast<uint32_t>(scenario_.dump.steps.size());
    for (uint32_t step = 1; step <= std::min(steps, UDL_MAX_STEP); step++)
        plan_.push_back({Kind::dump_step, udl_request(UDL_STAGE_DUMP, step)});
    plan_.push_back({Kind::word, udl_request(UDL_STAGE_DUMP, UDL_CMD_DONE)});
}

void Loader::receive(Node node, const Packet& packet) {
    if (!running_ || node != node_) {
        story_.violation(fmt::format("{} bytes written to the {} node while no boot loader runs",
                                     packet.size(), node_name(node)));
        return;
    }
    if (step_ < plan_.size() && plan_[step_].kind == Kind::optional_word &&
        first_word(packet) != plan_[step_].word)
        step_++;
    if (step_ == plan_.size()) {
        wrong(packet);
        return;
    }
    const Expected expected = plan_[step_];
    if (expected.kind == Kind::frames) {
        accept_frame(packet, expected);
    } else if (accept_word(packet, expected)) {
        step_++;
        story_.request("loader", "link " + name_of(expected.word));
        if (expected.kind == Kind::dump_step) {
            begin_step(expected.word & 0xFF);
        } else {
            send_word(response_to(expected.word));
        }
        if (expected.kind == Kind::dump_start) announce_dump();
        if (step_ < plan_.size() && plan_[step_].kind == Kind::frames &&
            plan_[step_].entry->size == 0)
            image_done(plan_[step_]);
    }
    stage_.pump(node_);
}

bool Loader::accept_word(const Packet& packet, const Expected& expected) {
    const bool crc = expected.kind == Kind::crc;
    if (first_word(packet) != expected.word ||
        packet.size() != (crc ? sizeof(udl_crc) : sizeof(uint32_t))) {
        wrong(packet);
        return false;
    }
    if (crc) {
        udl_crc sum;
        memcpy(&sum, packet.data(), sizeof(sum));
        if (sum.crc != expected.entry->crc)
            story_.violation(fmt::format("checksum 0x{:08X} sent, 0x{:08X} in the table", sum.crc,
                                         expected.entry->crc));
    }
    return true;
}

void Loader::accept_frame(const Packet& packet, const Expected& expected) {
    const toc_entry& entry = *expected.entry;
    udl_frame frame{};
    memcpy(&frame, packet.data(), std::min(packet.size(), sizeof(frame)));
    const uint64_t left = entry.size - image_.size();
    const bool right = frame.cmd == expected.word && frame.num_frames == udl_frames(entry.size) &&
                       frame.curr_frame == image_frames_ + 1 &&
                       frame.len == std::min<uint64_t>(left, UDL_MSS) &&
                       packet.size() == UDL_HEADER + frame.len;
    if (!right) {
        wrong(packet);
        return;
    }
    if (frame.curr_frame == 1)
        story_.begin_transfer(fmt::format("image {}", image_name(entry)), entry.size);
    image_.insert(image_.end(), frame.data, frame.data + frame.len);
    image_frames_ = frame.curr_frame;
    story_.advance_transfer(frame.len);
    if (image_.size() == entry.size) image_done(expected);
}

void Loader::image_done(const Expected& expected) {
    story_.tell("daemon", "loader",
                fmt::format("image {}, {} in {} frames", image_name(*expected.entry),
                            human_size(expected.entry->size), image_frames_));
    if (!partition_.holds(*expected.entry, 0, image_.data(), image_.size()))
        story_.violation(fmt::format("{} differs from its file", image_name(*expected.entry)));
    image_.clear();
    image_frames_ = 0;
    step_++;
    send_word(response_to(expected.word));
}

void Loader::wrong(const Packet& packet) {
    const std::string wanted =
            step_ < plan_.size() ? name_of(plan_[step_].word) : std::string("nothing more");
    story_.violation(fmt::format("the loader expects {} and gets {} bytes, first word {}", wanted,
                                 packet.size(), name_of(first_word(packet))));
}

uint64_t Loader::dump_size() const {
    const auto& steps = scenario_.dump.steps;
    return static_cast<uint64_t>(std::accumulate(steps.begin(), steps.end(), int64_t{0}));
}

void Loader::announce_dump() {
    const DumpSetup& dump = scenario_.dump;
    udl_dump_info info{};
    info.dump_size = static_cast<uint32_t>(dump_size());
    info.num_steps = static_cast<uint32_t>(dump.steps.size());
    info.reason_len = static_cast<uint32_t>(dump.reason.size());
    Packet packet(sizeof(info));
    memcpy(packet.data(), &info, sizeof(info));
    send("info", packet);
    if (!dump.reason.empty()) send("reason", Packet(dump.reason.begin(), dump.reason.end()));
}

void Loader::begin_step(uint32_t step) {
    const auto& steps = scenario_.dump.steps;
    dump_step_ = step;
    frame_ = 0;
    step_begin_ = 0;
    for (size_t i = 0; i + 1 < step && i < steps.size(); i++)
        step_begin_ += static_cast<uint64_t>(steps[i]);
    step_size_ = step <= steps.size() ? static_cast<uint64_t>(steps[step - 1]) : 0;
    story_.begin_transfer(fmt::format("dump step {}", step), step_size_);
}

bool Loader::next_frame(Packet& packet) {
    const uint64_t done = frame_ * uint64_t{UDL_MSS};
    if (done >= step_size_) return false;
    const uint64_t len = std::min<uint64_t>(UDL_MSS, step_size_ - done);
    udl_frame header{};
    header.cmd = udl_response(UDL_STAGE_DUMP, dump_step_);
    header.num_frames = udl_frames(static_cast<uint32_t>(step_size_));
    header.curr_frame = ++frame_;
    header.len = static_cast<uint32_t>(len);
    packet.resize(UDL_HEADER + len);
    memcpy(packet.data(), &header, UDL_HEADER);
    fill_seeded(dump_seed(), step_begin_ + done, packet.data() + UDL_HEADER, len);
    story_.advance_transfer(len);
    return true;
}

bool Loader::next(Node node, Packet& packet) {
    if (!running_ || node != node_ || silent_) return false;
    while (outgoing_.empty()) {
        if (!next_frame(packet)) return false;
        if (scenario_.loader.empty()) return true;
        send(fmt::format("{}.{}", dump_step_, frame_), packet);
    }
    if (outgoing_.front().due > stage_.now()) return false;
    if (const Quirk* end = outgoing_.front().end) {
        story_.tell("loader", "", end->silent ? "goes silent" : "hangs up");
        silent_ = true;
        if (end->hang_up) stage_.hang_up(node_);
        return false;
    }
    packet.swap(outgoing_.front().packet);
    outgoing_.pop_front();
    return true;
}

const Quirk* Loader::quirk_for(const std::string& name) {
    const Quirk* found = nullptr;
    for (const Quirk& quirk : scenario_.loader) {
        if (quirk.at == name && quirk.turn.takes() && found == nullptr) found = &quirk;
    }
    return found;
}

void Loader::send_word(uint32_t word) {
    send(name_of(word), word_packet(word));
}

void Loader::send(const std::string& name, Packet packet) {
    Time due = outgoing_.empty() ? stage_.now() : outgoing_.back().due;
    const Quirk* quirk = quirk_for(name);
    if (quirk == nullptr) {
        if (name[0] == '0') story_.tell("loader", "daemon", name);
        outgoing_.push_back({std::move(packet), due});
        return;
    }
    if (quirk->silent || quirk->hang_up) {
        outgoing_.push_back({{}, due, quirk});
        return;
    }
    const auto put = [&](size_t offset, const std::optional<int64_t>& value) {
        const auto word = static_cast<uint32_t>(value.value_or(0));
        if (value && packet.size() >= offset + sizeof(word))
            memcpy(packet.data() + offset, &word, sizeof(word));
    };
    put(offsetof(udl_frame, cmd), quirk->say);
    put(offsetof(udl_frame, curr_frame), quirk->curr_frame);
    put(offsetof(udl_frame, len), quirk->len);
    if (quirk->cut) packet.resize(static_cast<size_t>(*quirk->cut));
    packet.resize(packet.size() + static_cast<size_t>(quirk->extra), 0x55);
    due += quirk->late;
    story_.tell("loader", "daemon",
                fmt::format("{} as the scenario changes it: {} bytes, first word {}", name,
                            packet.size(), name_of(first_word(packet))));
    outgoing_.push_back({packet, due});
    if (quirk->twice) outgoing_.push_back({packet, due});
    if (quirk->late > 0) {
        const int generation = generation_;
        stage_.later(due - stage_.now(), [this, generation] {
            if (generation == generation_) stage_.pump(node_);
        });
    }
}

}  // namespace rvd::lab
