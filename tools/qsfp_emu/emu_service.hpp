#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cage_emulator.hpp"
#include "device_handler_api.hpp"
#include "emu_bus.hpp"

namespace qsfpd::emu {

// The emulator as a process: N cages on one simulated bus, each served at <dir>/qsfp<N> for the
// daemon's qsfp_device, and a control socket at <dir>/control for tests and people.
class emu_service {
  public:
    struct options {
        std::filesystem::path dir = "/tmp/qsfp-emu";
        unsigned cages = 8;
        unsigned bus_speed_hz = 400'000;
        bool handle_signals = false;  // the process stops on SIGINT/SIGTERM
    };

    emu_service(options opts, std::shared_ptr<clock> clk = clock::system());
    ~emu_service();
    emu_service(const emu_service&) = delete;
    emu_service& operator=(const emu_service&) = delete;

    cage_emulator& cage(unsigned index);
    emu_bus& bus() { return *bus_; }
    std::filesystem::path cage_socket(unsigned index) const;
    std::filesystem::path control_socket() const;

    // Inserts a profile given as a file path or as the name of a bundled profile ("lr4").
    void insert(unsigned index, const std::string& profile);

    // Serves on the calling thread until stop() (or a signal, see options); returns then.
    void run();
    void stop();

    // The control methods, exposed for in-process tests: params JSON in, result JSON text out.
    std::string control(const std::string& method, const rapidjson::Value* params);

  private:
    void add_control_methods();
    unsigned cage_param(const rapidjson::Value* params) const;

    options options_;
    std::shared_ptr<clock> clock_;
    std::shared_ptr<emu_bus> bus_;
    std::vector<std::shared_ptr<cage_emulator>> cages_;
    std::vector<std::unique_ptr<device_handler_api>> cage_servers_;
    std::unique_ptr<device_handler_api> control_server_;
    std::vector<std::thread> threads_;
};

}  // namespace qsfpd::emu
