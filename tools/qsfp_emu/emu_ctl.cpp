#include "emu_ctl.hpp"

#include <map>

#include "device_handler_client.hpp"
#include "dh_json.hpp"

namespace qsfpd::emu {
namespace {

// The positional arguments of each method, in order; numbers are sent as numbers.
const std::map<std::string, std::vector<std::string>, std::less<>>& positional() {
    static const std::map<std::string, std::vector<std::string>, std::less<>> table = {
        {"insert", {"cage", "profile"}},
        {"remove", {"cage"}},
        {"fault", {"cage", "kind"}},
        {"peek", {"cage", "address", "length", "bank"}},
        {"poke", {"cage", "address", "bytes"}},
        {"pins", {"cage"}},
        {"counters", {}},
        {"ber", {"cage", "pre_fec", "prbs"}},
    };
    return table;
}

bool is_number(const std::string& s) {
    return !s.empty() && s.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

std::string ctl_usage() {
    return "control methods (qsfp-emu ctl [--dir DIR] METHOD ...):\n"
           "  insert CAGE PROFILE        remove CAGE          pins CAGE        counters\n"
           "  peek CAGE ADDRESS [LENGTH [BANK]]          poke CAGE ADDRESS HEXBYTES\n"
           "  (ADDRESS: lower memory 0..127, upper page P byte B at P * 128 + B, e.g. the\n"
           "  active control set, page 11h byte 206, at 2382)\n"
           "  ber CAGE [PRE_FEC [PRBS]]  a coherent module's BERs (e.g. 2e-4); shows them\n"
           "  fault CAGE KIND            or any method with one JSON object of params, e.g.\n"
           "  fault "
           "'{\"cage\":3,\"kind\":\"flap\",\"flag\":\"rx_los\",\"lane\":0,\"pattern\":\"1100\"}'\n"
           "  fault "
           "'{\"cage\":3,\"kind\":\"coherent\",\"flag\":\"rx_local\",\"bank\":0,\"on\":true}'\n"
           "  (CMIS 5 coherent fault flags of page C8h: tx_remote, tx_local, rx_remote, "
           "rx_local)\n";
}

int run_ctl(const std::vector<std::string>& args_in, std::ostream& out, std::ostream& err) {
    std::vector<std::string> args = args_in;
    std::string dir = "/tmp/qsfp-emu";
    if (args.size() >= 2 && args[0] == "--dir") {
        dir = args[1];
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.empty()) {
        err << ctl_usage();
        return 2;
    }
    const std::string method = args[0];
    auto known = positional().find(method);
    if (known == positional().end()) {
        err << "qsfp-emu ctl: unknown method " << method << "\n" << ctl_usage();
        return 2;
    }
    rapidjson::Document params(rapidjson::kObjectType);
    auto& a = params.GetAllocator();
    if (args.size() == 2 && !args[1].empty() && args[1].front() == '{') {
        params.Parse(args[1].c_str());
        if (params.HasParseError() || !params.IsObject()) {
            err << "qsfp-emu ctl: the params are not a JSON object\n";
            return 2;
        }
    } else {
        if (args.size() - 1 > known->second.size()) {
            err << "qsfp-emu ctl: too many arguments for " << method << "\n" << ctl_usage();
            return 2;
        }
        for (std::size_t i = 1; i < args.size(); ++i) {
            const auto& name = known->second[i - 1];
            rapidjson::Value key(name.c_str(), a);
            if (is_number(args[i]) && name != "bytes")
                params.AddMember(key, rapidjson::Value(static_cast<unsigned>(std::stoul(args[i]))),
                                 a);
            else
                params.AddMember(key, rapidjson::Value(args[i].c_str(), a), a);
        }
    }
    device_handler_client client(dir + "/control");
    try {
        auto result = client.call(method, params);
        out << dh::to_json_text(result) << "\n";
        return 0;
    } catch (const dh_error& e) {
        if (e.code() == dh::errc::connection_refused) {
            err << "qsfp-emu ctl: cannot reach " << dir << "/control (is qsfp-emu running?)\n";
            return 3;
        }
        err << "qsfp-emu ctl: " << e.text() << " (error " << e.code() << ")\n";
        return 1;
    }
}

}  // namespace qsfpd::emu
