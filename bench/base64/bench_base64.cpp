// Throughput of the Base64 codec against Botan 2's codec, measured in the same
// run. Decode is measured on text without and with a line break every 76
// characters; bytes per second count the input consumed (Base64 text for
// decode, binary for encode). After the run a summary prints each figure's
// ratio to Botan's.

#include <benchmark/benchmark.h>
#include <botan/base64.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "base64_utils/base64_utils.hpp"

namespace {

using base64_utils::Base64Utils;

constexpr std::size_t kLineLength = 76;

std::vector<std::uint8_t> RandomBytes(std::size_t size) {
    std::mt19937 random(static_cast<std::uint32_t>(size));
    std::vector<std::uint8_t> bytes(size);
    for (auto& byte : bytes) {
        byte = static_cast<std::uint8_t>(random());
    }
    return bytes;
}

std::string Wrapped(const std::string& text) {
    std::string wrapped;
    wrapped.reserve(text.size() + text.size() / kLineLength + 1);
    for (std::size_t i = 0; i < text.size(); i += kLineLength) {
        wrapped.append(text, i, kLineLength);
        wrapped += '\n';
    }
    return wrapped;
}

std::string SizeName(std::size_t size) {
    return size >= (1U << 20) ? std::to_string(size >> 20) + "MiB"
                              : std::to_string(size >> 10) + "KiB";
}

// Both codecs must give the same bytes before their speed is worth comparing.
bool SameResults(const std::vector<std::uint8_t>& bytes, const std::string& text) {
    const auto ours = Base64Utils::Base64DecodeToBinaryVector(text);
    const auto botan = Botan::base64_decode(text);
    return ours == bytes && std::vector<std::uint8_t>(botan.begin(), botan.end()) == bytes &&
           Base64Utils::Base64EncodeFromBinaryVector(bytes) ==
               Botan::base64_encode(bytes.data(), bytes.size());
}

void RegisterFor(std::size_t size) {
    const auto bytes = RandomBytes(size);
    const std::string plain = Base64Utils::Base64EncodeFromBinaryVector(bytes);
    const std::vector<std::pair<std::string, std::string>> layouts = {
        {"plain", plain}, {"wrapped76", Wrapped(plain)}};
    for (const auto& [layout, text] : layouts) {
        const bool same = SameResults(bytes, text);
        const std::string suffix = "/" + layout + "/" + SizeName(size);
        benchmark::RegisterBenchmark(
            ("decode/kelvane" + suffix).c_str(), [text = text, same](benchmark::State& state) {
                if (!same) {
                    state.SkipWithError("results differ from Botan's");
                }
                for (auto _ : state) {
                    auto decoded = Base64Utils::Base64DecodeToBinaryVector(text);
                    benchmark::DoNotOptimize(decoded.data());
                }
                state.SetBytesProcessed(
                    static_cast<std::int64_t>(state.iterations() * text.size()));
            });
        benchmark::RegisterBenchmark(
            ("decode/botan" + suffix).c_str(), [text = text](benchmark::State& state) {
                for (auto _ : state) {
                    auto decoded = Botan::base64_decode(text);
                    benchmark::DoNotOptimize(decoded.data());
                }
                state.SetBytesProcessed(
                    static_cast<std::int64_t>(state.iterations() * text.size()));
            });
    }
    const std::string suffix = "/plain/" + SizeName(size);
    benchmark::RegisterBenchmark(
        ("encode/kelvane" + suffix).c_str(), [bytes](benchmark::State& state) {
            for (auto _ : state) {
                auto text = Base64Utils::Base64EncodeFromBinaryVector(bytes);
                benchmark::DoNotOptimize(text.data());
            }
            state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
        });
    benchmark::RegisterBenchmark(
        ("encode/botan" + suffix).c_str(), [bytes](benchmark::State& state) {
            for (auto _ : state) {
                auto text = Botan::base64_encode(bytes.data(), bytes.size());
                benchmark::DoNotOptimize(text.data());
            }
            state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
        });
}

// Prints the usual table, then one line per figure with its ratio to Botan's.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    // Colour only on a terminal, so that saved output stays readable.
    SummaryReporter() : ConsoleReporter(isatty(fileno(stdout)) ? OO_ColorTabular : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) {
            const auto rate = run.counters.find("bytes_per_second");
            if (!run.error_occurred && rate != run.counters.end() &&
                (run.run_type == Run::RT_Iteration || run.aggregate_name == "mean")) {
                const auto& name = run.run_name.function_name;
                if (rates_.count(name) == 0) {
                    order_.push_back(name);
                }
                rates_[name] = rate->second.value;
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        // MB here are 10^6 bytes.
        std::printf("\n%-34s %12s %12s %8s\n", "benchmark", "MB/s", "Botan MB/s", "ratio");
        for (const auto& name : order_) {
            const double rate = rates_[name];
            const auto at = name.find("/kelvane/");
            if (at == std::string::npos) {
                continue;
            }
            std::string reference = name;
            reference.replace(at, 9, "/botan/");
            const auto botan = rates_.find(reference);
            if (botan == rates_.end() || botan->second <= 0) {
                continue;
            }
            std::printf("%-34s %12.0f %12.0f %7.1fx\n", name.c_str(), rate / 1e6,
                        botan->second / 1e6, rate / botan->second);
        }
        std::fflush(stdout);
    }

private:
    std::map<std::string, double> rates_;
    std::vector<std::string> order_;
};

}  // namespace

int main(int argc, char** argv) {
    for (const std::size_t size :
         {std::size_t{1} << 10, std::size_t{64} << 10, std::size_t{1} << 20}) {
        RegisterFor(size);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
