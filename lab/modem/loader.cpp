#include "lab/modem/loader.h"

#include <fmt/format.h>
#include <string.h>

#include <algorithm>
#include <deque>
#include <numeric>

#include "protocol/link.h"

namespace rvd::lab {

namespace {

template <class Record>
Packet packet_of(const Record& record) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(&record);
    return {bytes, bytes + sizeof(record)};
}

// Pads a short packet with zeros.
template <class Record>
Record record_of(const Packet& packet) {
    Record record{};
    const size_t size = std::min(packet.size(), sizeof(record));
    std::copy_n(packet.begin(), size, reinterpret_cast<uint8_t*>(&record));
    return record;
}

std::string name_of(uint32_t word) {
    return fmt::format("0x{:04X}", word);
}

class ModelLoader : public Loader, private ModelContext {
  public:
    ModelLoader(const ModelContext& context, cp_boot_mode mode)
        : Loader(mode == CP_BOOT_MODE_DUMP ? Node::dump : Node::boot), ModelContext(context) {
        if (node == Node::dump) {
            plan_dump();
        } else if (scenario.external()) {
            plan_download();
        } else {
            plan_.push_back({Kind::word, 0, UDL_CMD_DONE});
            plan_.push_back({Kind::word, UDL_STAGE_FINISH, UDL_CMD_START});
        }
    }

    bool finished() const override { return step_ == plan_.size(); }

    void receive(const Packet& packet) override {
        if (!finished() && plan_[step_].kind == Kind::optional_word &&
            record_of<uint32_t>(packet) != plan_[step_].word())
            step_++;
        if (finished()) return reject(packet);
        const Expected expected = plan_[step_];
        if (expected.kind == Kind::frames) {
            take_frame(packet, expected);
        } else {
            take_word(packet, expected);
        }
        backend.send_packets(node);
    }

    bool next_packet(Packet& packet) override {
        if (silent_) return false;
        while (outgoing_.empty()) {
            if (!next_frame(packet)) return false;
            if (scenario.loader.empty()) return true;
            send(fmt::format("{}.{}", dump_step_, frame_), packet);
        }
        if (outgoing_.front().due > backend.now()) return false;
        if (const Quirk* end = outgoing_.front().end) {
            story.add_message("loader", "", end->silent ? "goes silent" : "hangs up");
            silent_ = true;
            if (end->hang_up) backend.hang_up(node);
            return false;
        }
        packet.swap(outgoing_.front().packet);
        outgoing_.pop_front();
        return true;
    }

  private:
    enum class Kind { word, optional_word, frames, crc, dump_start, dump_step };

    // What the loader expects next from the daemon.
    struct Expected {
        Kind kind;
        uint32_t number, command;  // the stage and command of the link word
        const toc_entry* entry = nullptr;

        uint32_t word() const { return udl_request(number, command); }
    };

    struct Outgoing {
        Packet packet;
        Time due;
        const Quirk* end = nullptr;  // instead of the packet: silence or a hang-up
    };

    // The driver has loaded stage 0, the boot loader (row 1). The table itself is stage 1; every
    // other image's stage is its row, up to the row "OFFSET".
    void plan_download() {
        const auto& table = partition.table();
        plan_.push_back({Kind::optional_word, 0, UDL_CMD_DONE});
        for (uint32_t row = 0; row < std::min<size_t>(table.size(), UDL_STAGE_DUMP); row++) {
            if (row == 1) continue;
            const uint32_t number = std::max(row, 1u);
            const toc_entry& entry = table[row];
            if (row > 0 && has_name(entry, kTocOffset))
                return plan_.push_back({Kind::word, UDL_STAGE_FINISH, UDL_CMD_START});
            plan_.push_back({Kind::word, number, UDL_CMD_START});
            plan_.push_back({Kind::frames, number, UDL_CMD_BIN, &entry});
            if (has_name(entry, kTocMain))
                plan_.push_back({Kind::crc, number, UDL_CMD_CRC, &entry});
            plan_.push_back({Kind::word, number, UDL_CMD_DONE});
        }
    }

    void plan_dump() {
        const DumpSetup& dump = scenario.dump;
        plan_.push_back({Kind::dump_start, UDL_STAGE_DUMP, UDL_CMD_START});
        const uint32_t steps = static_cast<uint32_t>(dump.steps.size());
        for (uint32_t step = 1; step <= std::min(steps, UDL_MAX_STEP); step++)
            plan_.push_back({Kind::dump_step, UDL_STAGE_DUMP, step});
        plan_.push_back({Kind::word, UDL_STAGE_DUMP, UDL_CMD_DONE});
    }

    void take_word(const Packet& packet, const Expected& expected) {
        const auto sum = record_of<udl_crc>(packet);
        const bool crc = expected.kind == Kind::crc;
        if (sum.cmd != expected.word() || packet.size() != (crc ? sizeof(sum) : sizeof(sum.cmd)))
            return reject(packet);
        if (crc && sum.crc != expected.entry->crc)
            story.violation("checksum 0x{:08X} sent, 0x{:08X} in the table", sum.crc,
                            expected.entry->crc);
        step_++;
        story.request("loader", "link " + name_of(expected.word()));
        if (expected.kind == Kind::dump_step) return begin_dump_step(expected.command);
        respond(expected);
        if (expected.kind == Kind::dump_start) announce_dump();
        if (!finished() && plan_[step_].kind == Kind::frames && plan_[step_].entry->size == 0)
            end_image(plan_[step_]);
    }

    void take_frame(const Packet& packet, const Expected& expected) {
        const toc_entry& entry = *expected.entry;
        const auto frame = record_of<udl_frame>(packet);
        const uint64_t left = entry.size - image_.size();
        if (frame.cmd != expected.word() || frame.num_frames != udl_frames(entry.size) ||
            frame.curr_frame != image_frames_ + 1 ||
            frame.len != std::min<uint64_t>(left, UDL_MSS) ||
            packet.size() != UDL_HEADER + frame.len)
            return reject(packet);
        if (frame.curr_frame == 1) story.begin_transfer("image " + image_name(entry), entry.size);
        image_.insert(image_.end(), frame.data, frame.data + frame.len);
        image_frames_ = frame.curr_frame;
        story.advance_transfer(frame.len);
        if (image_.size() == entry.size) end_image(expected);
    }

    void end_image(const Expected& expected) {
        const std::string name = image_name(*expected.entry);
        story.add_message("daemon", "loader",
                          fmt::format("image {}, {} in {} frames", name, human_size(image_.size()),
                                      image_frames_));
        if (!partition.holds(*expected.entry, image_))
            story.violation(name + " differs from its file");
        image_.clear();
        image_frames_ = 0;
        step_++;
        respond(expected);
    }

    void reject(const Packet& packet) {
        story.violation("the loader expects {} and gets {} bytes, first word {}",
                        finished() ? "nothing more" : name_of(plan_[step_].word()), packet.size(),
                        name_of(record_of<uint32_t>(packet)));
    }

    void announce_dump() {
        const DumpSetup& dump = scenario.dump;
        udl_dump_info info{};
        info.dump_size = static_cast<uint32_t>(content_of(scenario, "dump").size);
        info.num_steps = static_cast<uint32_t>(dump.steps.size());
        info.reason_len = static_cast<uint32_t>(dump.reason.size());
        send("info", packet_of(info));
        if (!dump.reason.empty()) send("reason", Packet(dump.reason.begin(), dump.reason.end()));
    }

    void begin_dump_step(uint32_t step) {
        const auto& steps = scenario.dump.steps;
        const auto end =
                steps.begin() + std::min<ptrdiff_t>(step - 1, static_cast<ptrdiff_t>(steps.size()));
        dump_step_ = step;
        frame_ = 0;
        step_begin_ = static_cast<uint64_t>(std::accumulate(steps.begin(), end, int64_t{0}));
        step_size_ = end == steps.end() ? 0 : static_cast<uint64_t>(*end);
        story.begin_transfer(fmt::format("dump step {}", step), step_size_);
    }

    bool next_frame(Packet& packet) {
        const uint64_t done = frame_ * uint64_t{UDL_MSS};
        if (done >= step_size_) return false;
        const uint64_t len = std::min<uint64_t>(UDL_MSS, step_size_ - done);
        const uint32_t header[] = {udl_response(UDL_STAGE_DUMP, dump_step_),
                                   udl_frames(static_cast<uint32_t>(step_size_)), ++frame_,
                                   static_cast<uint32_t>(len)};
        packet = packet_of(header);
        packet.resize(UDL_HEADER + len);
        fill_seeded(content_of(scenario, "dump").seed, step_begin_ + done, &packet[UDL_HEADER],
                    len);
        story.advance_transfer(len);
        return true;
    }

    void respond(const Expected& request) {
        const uint32_t word = udl_response(request.number, request.command);
        send(name_of(word), packet_of(word));
    }

    void send(const std::string& name, Packet packet) {
        Time due = outgoing_.empty() ? backend.now() : outgoing_.back().due;
        const Quirk* quirk = first_triggered(scenario.loader,
                                             [&](const Quirk& known) { return known.at == name; });
        if (quirk == nullptr) {
            if (name[0] == '0') story.add_message("loader", "daemon", name);
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
                memcpy(&packet[offset], &word, sizeof(word));
        };
        put(offsetof(udl_frame, cmd), quirk->word);
        put(offsetof(udl_frame, curr_frame), quirk->curr_frame);
        put(offsetof(udl_frame, len), quirk->len);
        if (quirk->cut) packet.resize(static_cast<size_t>(*quirk->cut));
        packet.resize(packet.size() + static_cast<size_t>(quirk->extra), 0x55);
        due += quirk->late;
        story.add_message("loader", "daemon",
                          fmt::format("{}, changed by the scenario: {} bytes, first word {}", name,
                                      packet.size(), name_of(record_of<uint32_t>(packet))));
        outgoing_.push_back({packet, due});
        if (quirk->twice) outgoing_.push_back({packet, due});
        if (quirk->late > 0)
            backend.later(due - backend.now(), [&to = backend, at = node] { to.send_packets(at); });
    }

    std::vector<Expected> plan_;
    size_t step_ = 0;  // of the plan
    std::deque<Outgoing> outgoing_;
    bool silent_ = false;

    // The image being received.
    Packet image_;
    uint32_t image_frames_ = 0;

    // The dump step being sent, and its offset in the dump.
    uint32_t dump_step_ = 0, frame_ = 0;
    uint64_t step_begin_ = 0, step_size_ = 0;
};

}  // namespace

std::unique_ptr<Loader> start_loader(const ModelContext& context, cp_boot_mode mode) {
    return std::make_unique<ModelLoader>(context, mode);
}

}  // namespace rvd::lab
