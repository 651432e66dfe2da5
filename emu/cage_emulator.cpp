#include "cage_emulator.hpp"

#include <system_error>

#include "msg_log.hpp"

namespace qsfpd::emu {

cage_emulator::cage_emulator(std::shared_ptr<clock> clk, std::shared_ptr<emu_bus> bus,
                             std::string name)
    : clock_(std::move(clk)),
      bus_(std::move(bus)),
      name_(std::move(name)),
      bus_index_(bus_->attach(name_)) {}

void cage_emulator::insert(module_profile profile) {
    std::lock_guard lock(mutex_);
    MSG_LOG(msg_log::debug, "emu") << name_ << ": insert " << profile.name;
    module_ = std::make_unique<module_emulator>(std::move(profile), clock_);
    module_->set_lpmode(lines_[cage::line::lpmode]);
    module_->set_reset(lines_[cage::line::reset]);
}

void cage_emulator::remove() {
    std::lock_guard lock(mutex_);
    module_.reset();
}

void cage_emulator::fail_next(unsigned count, int error) {
    std::lock_guard lock(mutex_);
    if (count > 0) faults_.push_back({error, count, false, std::nullopt});
}

void cage_emulator::fail_at(std::uint8_t device_address, std::uint8_t first, std::uint8_t last,
                            int error, unsigned count) {
    std::lock_guard lock(mutex_);
    faults_.push_back({error, count, count == 0, device_address, first, last});
}

void cage_emulator::clear_faults() {
    std::lock_guard lock(mutex_);
    faults_.clear();
}

int cage_emulator::check(std::uint8_t device_address, std::uint8_t offset, std::size_t length) {
    for (auto it = faults_.begin(); it != faults_.end(); ++it) {
        if (it->device) {
            if (*it->device != device_address) continue;
            bool touched = false;
            for (std::size_t i = 0; i < std::max<std::size_t>(length, 1) && i < 256; ++i) {
                const auto a = static_cast<std::uint8_t>(offset + i);
                if (a >= it->first && a <= it->last) touched = true;
            }
            if (!touched) continue;
        }
        const int error = it->error;
        if (!it->persistent && --it->remaining == 0) faults_.erase(it);
        return error;
    }
    if (!module_ || !module_->answers(device_address)) return ENXIO;
    return 0;
}

void cage_emulator::i2c_read(std::uint8_t device_address, std::uint8_t offset,
                             std::span<std::uint8_t> out) {
    std::lock_guard lock(mutex_);
    if (const int error = check(device_address, offset, out.size())) {
        bus_->account(bus_index_, emu_bus::kind::read, out.size(),
                      error == ENXIO ? emu_bus::outcome::nack : emu_bus::outcome::error);
        throw std::system_error(error, std::generic_category(), name_ + ": i2c read");
    }
    module_->read(device_address, offset, out);
    bus_->account(bus_index_, emu_bus::kind::read, out.size());
}

void cage_emulator::i2c_write(std::uint8_t device_address, std::uint8_t offset,
                              std::span<const std::uint8_t> data) {
    std::lock_guard lock(mutex_);
    if (const int error = check(device_address, offset, data.size())) {
        bus_->account(bus_index_, emu_bus::kind::write, data.size(),
                      error == ENXIO ? emu_bus::outcome::nack : emu_bus::outcome::error);
        throw std::system_error(error, std::generic_category(), name_ + ": i2c write");
    }
    module_->write(device_address, offset, data);
    bus_->account(bus_index_, emu_bus::kind::write, data.size());
}

bool cage_emulator::pin_get(unsigned line) {
    std::lock_guard lock(mutex_);
    if (line >= lines_.size()) throw std::system_error(EINVAL, std::generic_category(), "line");
    return lines_[line];
}

void cage_emulator::pin_set(unsigned line, bool value) {
    std::lock_guard lock(mutex_);
    if (line >= lines_.size()) throw std::system_error(EINVAL, std::generic_category(), "line");
    lines_[line] = value;
    if (!module_) return;
    if (line == cage::line::lpmode) module_->set_lpmode(value);
    if (line == cage::line::reset) module_->set_reset(value);
}

bool cage_emulator::module_present() {
    std::lock_guard lock(mutex_);
    return module_ != nullptr;
}

bool cage_emulator::sfp_signal_get(cage::sfp_signal signal) {
    std::lock_guard lock(mutex_);
    if (!module_) throw std::system_error(ENXIO, std::generic_category(), name_ + ": empty");
    return module_->sfp_signal(signal);
}

void cage_emulator::sfp_signal_set(cage::sfp_signal signal, bool value) {
    std::lock_guard lock(mutex_);
    if (!module_) throw std::system_error(ENXIO, std::generic_category(), name_ + ": empty");
    module_->set_sfp_signal(signal, value);
}

}  // namespace qsfpd::emu
