// JSON parsing throughput against nlohmann-json and RapidJSON, from 1 KB to
// 1 MB. Every side builds its whole tree and frees it again per iteration.
//
// The documents are update listings within what every reader accepts: objects,
// non-empty arrays, strings with escapes and UTF-8, non-negative integers and
// booleans (our reader has no null, no sign and no fraction).
#include <benchmark/benchmark.h>
#include <rapidjson/document.h>

#include <cstdint>
#include <cstdio>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "FixedAllocator.h"
#include "common/formats/JSONReader.h"

namespace zelph::bench {
namespace {

constexpr std::size_t kSizes[] = {1 << 10, 32 << 10, 1 << 20};

// An update listing of about `size` bytes.
std::string MakeDocument(std::size_t size) {
  std::string text =
      "{\n  \"product\": \"zelph\",\n  \"channel\": \"stable\",\n  \"latest\": 62005,\n"
      "  \"files\": [\n";
  for (unsigned i = 0; text.size() + 400 < size || i == 0; ++i) {
    char entry[512];
    std::snprintf(entry, sizeof entry,
                  "%s    {\"name\": \"zelph-6.20.%u_amd64.deb\", \"version\": \"6.20.%u\", "
                  "\"size\": %u, \"sha256\": \"%08x9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822c"
                  "d15d6c15b0f00a08\", \"mandatory\": %s, \"platforms\": [\"linux\", \"x86_64\"], "
                  "\"notes\": \"Caf\\u00e9 \\\"slot\\\" fix\\nfor r\xc3\xa9seau %u\", \"build\": "
                  "{\"id\": %u, \"signed\": true}}",
                  i == 0 ? "" : ",\n", i, i, 1048576 + i * 37, i * 2654435761u,
                  i % 5 == 0 ? "true" : "false", i, 9000 + i);
    text += entry;
  }
  text += "\n  ]\n}\n";
  return text;
}

const std::string& Document(std::size_t size) {
  static std::map<std::size_t, std::string> documents;
  auto& text = documents[size];
  if (text.empty()) text = MakeDocument(size);
  return text;
}

void BM_Ours(benchmark::State& state) {
  const std::string& text = Document(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    const char* position = text.c_str();
    CJSValuePtr root = ParseJSON(position, text.c_str() + text.size());
    benchmark::DoNotOptimize(root.get());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

void BM_Nlohmann(benchmark::State& state) {
  const std::string& text = Document(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    nlohmann::json root = nlohmann::json::parse(text.begin(), text.end());
    benchmark::DoNotOptimize(&root);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

void BM_RapidJson(benchmark::State& state) {
  const std::string& text = Document(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    rapidjson::Document root;
    root.Parse(text.c_str(), text.size());
    benchmark::DoNotOptimize(&root);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

// Every reader must see the same listing before any of them is timed.
bool SameDocuments() {
  for (const std::size_t size : kSizes) {
    const std::string& text = Document(size);
    const char* position = text.c_str();
    const CJSValuePtr ours = ParseJSON(position, text.c_str() + text.size());
    const nlohmann::json theirs = nlohmann::json::parse(text);
    rapidjson::Document rapid;
    rapid.Parse(text.c_str(), text.size());
    const std::uint64_t files = theirs["files"].size();
    const auto& last = ours->Find("files").GetItem(files - 1);
    if (rapid.HasParseError() || ours->GetCount() != theirs.size() ||
        ours->Find("files").GetCount() != files || rapid["files"].Size() != files ||
        last.Find("notes").GetString().View() !=
            theirs["files"][files - 1]["notes"].get<std::string>() ||
        last.Find("size").GetInt() != theirs["files"][files - 1]["size"].get<int>()) {
      std::cerr << "zelph_json_bench: the readers disagree on the " << size << "-byte document\n";
      return false;
    }
  }
  return true;
}

void Sizes(benchmark::internal::Benchmark* b) {
  for (const std::size_t size : kSizes) b->Arg(static_cast<std::int64_t>(size));
}

BENCHMARK(BM_Ours)->Name("Json/Ours")->Apply(Sizes);
BENCHMARK(BM_Nlohmann)->Name("Json/Nlohmann")->Apply(Sizes);
BENCHMARK(BM_RapidJson)->Name("Json/RapidJSON")->Apply(Sizes);

}  // namespace
}  // namespace zelph::bench

int main(int argc, char** argv) {
  if (!zelph::bench::FixAllocatorThresholds()) {
    std::cerr << "zelph_json_bench: could not fix the allocator's thresholds\n";
    return 1;
  }
  if (!zelph::bench::SameDocuments()) return 1;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
