// Arbitrary job dictionaries through the unit translation. Whatever it
// accepts must give a service whose argument vector and environment, read
// back the way systemd reads them, are exactly the job's, and no value may
// make a directive of its own or swallow the next.
#include <cstdint>
#include <cstdlib>

#include "platform/linux/systemd/unit_translation.h"
#include "plist/codec.h"
#include "systemd/unit_text.h"

using namespace tessary;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto job = plist::decode(std::span<const std::uint8_t>(data, size));
    if (!job || !job.value().isDictionary()) {
        return 0;
    }
    auto t = linux_backend::translateJob(job.value(), {});
    if (!t) {
        return 0;
    }
    // No line of any unit goes on in the next, which would hide a directive.
    for (const auto& u : t.value().units) {
        for (std::size_t end = u.text.find('\n'); end != std::string::npos;
             end = u.text.find('\n', end + 1)) {
            std::size_t slashes = 0;
            while (slashes < end && u.text[end - 1 - slashes] == '\\') {
                ++slashes;
            }
            if (slashes % 2 == 1) {
                std::abort();
            }
        }
    }
    const auto unit = testing::UnitText::parse(t.value().units.at(0).text);
    if (!unit.all("!malformed").empty() || !unit.all("Service.ExecStartPre").empty() ||
        unit.all("Service.ExecStart").size() != 1) {
        std::abort();
    }
    const auto cmd = testing::parseExecStart(*unit.one("Service.ExecStart"));
    if (!cmd) {
        std::abort();
    }
    // The expected argument vector: ProgramArguments, or Program alone.
    std::vector<std::string> argv;
    if (const plist::Array* a = job.value().find("ProgramArguments") != nullptr
                                    ? job.value().find("ProgramArguments")->array()
                                    : nullptr) {
        for (const plist::Value& v : *a) {
            argv.push_back(v.string() != nullptr ? *v.string() : "");
        }
    }
    if (argv.empty() && job.value().stringAt("Program") != nullptr) {
        argv.push_back(*job.value().stringAt("Program"));
    }
    if (!argv.empty() && cmd->argv != argv) {
        std::abort();
    }
    // Every variable the job sets arrives as one Environment= word.
    if (const plist::Value* env = job.value().find("EnvironmentVariables")) {
        if (const plist::Dictionary* d = env->dictionary()) {
            std::map<std::string, std::string> readBack;
            for (const auto& line : unit.all("Service.Environment")) {
                auto words = testing::splitWords(line, false);
                if (!words || words->size() != 1) {
                    std::abort();
                }
                const auto eq = words->front().find('=');
                readBack[words->front().substr(0, eq)] = words->front().substr(eq + 1);
            }
            for (const auto& [key, value] : *d) {
                if (value.string() != nullptr && readBack[key] != *value.string()) {
                    std::abort();
                }
            }
        }
    }
    return 0;
}
