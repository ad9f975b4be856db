// Encode and decode of the shared documents in both formats, plus the
// physical floor for the blob document (copying that many bytes) and, for
// it, the encoding into pieces that a file is written from.
//
//   plist_bench [benchmark flags]
//   plist_bench --dump-documents DIR   (for compare_plistlib.py)
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include "plist_documents.h"
#include "support/files.h"
#include "support/memory.h"
#include "support/plist/plist.h"

using namespace netvane;

namespace {

void encodeBinaryBench(benchmark::State& state, const plist::Value& value) {
    std::size_t bytes = 0;
    for (auto _ : state) {
        auto encoded = plist::encodeBinary(value);
        bytes = encoded->size();
        benchmark::DoNotOptimize(encoded->data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}

// Encoding into the buffer of the previous document, as a caller that
// encodes repeatedly does: its memory is already mapped and warm.
void encodeReusedBench(benchmark::State& state, const plist::Value& value) {
    plist::Data buffer;
    for (auto _ : state) {
        if (!plist::encodeBinary(value, buffer).ok()) state.SkipWithError("encode failed");
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * buffer.size()));
}

// The encoding a file is written from: large data values are referenced
// where they lie rather than copied into one fresh buffer.
void encodePiecesBench(benchmark::State& state, const plist::Value& value) {
    std::size_t bytes = 0;
    for (auto _ : state) {
        auto encoded = plist::encodeBinaryPieces(value);
        bytes = encoded->size();
        benchmark::DoNotOptimize(encoded->pieces.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}

void decodeBinaryBench(benchmark::State& state, const plist::Value& value) {
    const auto encoded = *plist::encodeBinary(value);
    for (auto _ : state) {
        auto decoded = plist::decodeBinary(encoded);
        benchmark::DoNotOptimize(decoded.ok());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * encoded.size()));
}

void encodeXmlBench(benchmark::State& state, const plist::Value& value) {
    for (auto _ : state) {
        auto encoded = plist::encodeXml(value);
        benchmark::DoNotOptimize(encoded->data());
    }
}

void decodeXmlBench(benchmark::State& state, const plist::Value& value) {
    const auto text = *plist::encodeXml(value);
    const auto bytes = std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    for (auto _ : state) {
        auto decoded = plist::decodeXml(bytes);
        benchmark::DoNotOptimize(decoded.ok());
    }
}

// The floor for the blob document: one copy of its bytes into fresh memory,
// page faults included, as any encoder returning a new buffer pays them
// (binary_encode, which asks the kernel to map its buffer in one go).
void copyFloorBench(benchmark::State& state, std::size_t size) {
    std::vector<std::uint8_t> source(size, 1);
    for (auto _ : state) {
        std::vector<std::uint8_t> copy(source.begin(), source.end());
        benchmark::DoNotOptimize(copy.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
}

// The floor of any encoder that returns a new buffer and maps it in as
// binary_encode does (huge pages, mapped in one call): the same copy into
// fresh memory given the same advice. What binary_encode costs beyond this is
// the encoding's own.
void freshCopyFloorBench(benchmark::State& state, std::size_t size) {
    std::vector<std::uint8_t> source(size, 1);
    for (auto _ : state) {
        std::vector<std::uint8_t> copy;
        copy.reserve(size);
        adviseLargeBuffer(copy.data(), copy.capacity());
        copy.insert(copy.end(), source.begin(), source.end());
        benchmark::DoNotOptimize(copy.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
}

// The stricter floor: copying into memory that is already mapped and warm,
// as binary_encode_reused and decoding (whose blocks the heap recycles) do.
void warmCopyFloorBench(benchmark::State& state, std::size_t size) {
    std::vector<std::uint8_t> source(size, 1), target(size, 0);
    for (auto _ : state) {
        std::memcpy(target.data(), source.data(), size);
        benchmark::DoNotOptimize(target.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
}

int dumpDocuments(const std::string& dir) {
    for (const auto& [name, value] : bench::allDocuments()) {
        auto bytes = plist::encodeBinary(value);
        if (!bytes || !writeFileAtomically(dir + "/" + name + ".bplist", *bytes).ok()) return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--dump-documents") == 0) return dumpDocuments(argv[2]);

    static const auto documents = bench::allDocuments();
    for (const auto& [name, value] : documents) {
        const bool big = name.find("blobs") != std::string::npos;
        benchmark::RegisterBenchmark(("binary_encode/" + name).c_str(), encodeBinaryBench, value)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("binary_encode_reused/" + name).c_str(), encodeReusedBench, value)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("binary_decode/" + name).c_str(), decodeBinaryBench, value)
            ->Unit(benchmark::kMillisecond);
        if (big) {
            benchmark::RegisterBenchmark(("binary_encode_pieces/" + name).c_str(), encodePiecesBench, value)
                ->Unit(benchmark::kMillisecond);
        } else {
            benchmark::RegisterBenchmark(("xml_encode/" + name).c_str(), encodeXmlBench, value)
                ->Unit(benchmark::kMillisecond);
            benchmark::RegisterBenchmark(("xml_decode/" + name).c_str(), decodeXmlBench, value)
                ->Unit(benchmark::kMillisecond);
        }
    }
    benchmark::RegisterBenchmark("copy_floor/blobs_50MB", copyFloorBench, std::size_t{50} << 20)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("fresh_copy_floor/blobs_50MB", freshCopyFloorBench, std::size_t{50} << 20)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("warm_copy_floor/blobs_50MB", warmCopyFloorBench, std::size_t{50} << 20)
        ->Unit(benchmark::kMillisecond);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
