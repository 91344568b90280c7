// Name lookups over a mix of known and unknown codes, against a
// std::unordered_map of the same names.
//
// The mix draws on the three large tables (return values, attribute types,
// mechanisms), three known codes to one unknown. The maps are filled by
// asking the library for every code of the ranges the tables cover, so they
// hold exactly its names; for an unknown code the map side writes the same
// fallback text into a buffer of its own, the same way as the library.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "zelph/trace.h"

namespace zelph::bench {
namespace {

enum class Table { kError, kAttribute, kMechanism };

struct CLookup {
  Table table;
  CK_ULONG code;
};

// The codes the tables may know: the standard ranges and the vendor area.
std::vector<CK_ULONG> CandidateCodes() {
  std::vector<CK_ULONG> codes;
  for (CK_ULONG code = 0; code < 0x2100; ++code) codes.push_back(code);
  for (CK_ULONG code = 0x80000000; code < 0x80000100; ++code) codes.push_back(code);
  codes.push_back(0x82000000);
  return codes;
}

bool IsFallback(const char* text) {
  return std::strncmp(text, "Unknown", 7) == 0 || std::strncmp(text, "unknown", 7) == 0;
}

// `lead`, `value` in upper-case hexadecimal with at least eight digits and
// `tail`: the fallback texts, written by hand as the library writes them, so
// that both sides pay the same for an unknown code.
const char* FormatUnknown(char* out, const char* lead, std::uint64_t value, const char* tail) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  char digits[16];
  int count = 0;
  do {
    digits[count++] = kDigits[value & 0xF];
    value >>= 4;
  } while (value != 0);
  while (count < 8) digits[count++] = '0';
  char* p = out;
  while (*lead != '\0') *p++ = *lead++;
  while (count > 0) *p++ = digits[--count];
  while (*tail != '\0') *p++ = *tail++;
  *p = '\0';
  return out;
}

// One table as a hash map, answering like the library.
class CMapTable {
 public:
  // `lead` and `tail` surround the hexadecimal number of an unknown code's
  // text; a null `lead` stands for the text "Unknown".
  CMapTable(const char* (*library)(CK_ULONG), const char* lead, const char* tail, bool lowHalf)
      : lead_(lead), tail_(tail), lowHalf_(lowHalf) {
    for (const CK_ULONG code : CandidateCodes()) {
      const char* name = library(code);
      if (IsFallback(name)) {
        unknown_.push_back(code);
      } else {
        names_.emplace(code, name);
        known_.push_back(code);
      }
    }
  }

  const char* Lookup(CK_ULONG code) {
    const auto found = names_.find(code);
    if (found != names_.end()) return found->second.c_str();
    if (lead_ == nullptr) return "Unknown";
    return FormatUnknown(unknown_text_, lead_, lowHalf_ ? code & 0xFFFFFFFFUL : code, tail_);
  }

  const std::vector<CK_ULONG>& Known() const noexcept { return known_; }
  const std::vector<CK_ULONG>& Unknown() const noexcept { return unknown_; }

 private:
  std::unordered_map<CK_ULONG, std::string> names_;
  std::vector<CK_ULONG> known_;
  std::vector<CK_ULONG> unknown_;
  const char* lead_;
  const char* tail_;
  bool lowHalf_;
  char unknown_text_[128] = {};
};

struct CTables {
  CMapTable error{GetCkErrorString, "Unknown: 0x", "", true};
  CMapTable attribute{GetCkAttributeTypeString, nullptr, nullptr, false};
  CMapTable mechanism{GetCkMechanismTypeString, "unknown (0x", ")", false};

  CMapTable& Of(Table table) {
    switch (table) {
      case Table::kError:
        return error;
      case Table::kAttribute:
        return attribute;
      case Table::kMechanism:
        break;
    }
    return mechanism;
  }
};

CTables& Tables() {
  static CTables tables;
  return tables;
}

// A fixed pseudo-random sequence of lookups: the three tables evenly, three
// known codes to one unknown.
const std::vector<CLookup>& Mix() {
  static const std::vector<CLookup> mix = [] {
    std::mt19937 random(20240305);
    std::vector<CLookup> lookups;
    for (int i = 0; i < 4096; ++i) {
      const auto table = static_cast<Table>(random() % 3);
      const CMapTable& map = Tables().Of(table);
      const auto& pool = random() % 4 == 0 ? map.Unknown() : map.Known();
      lookups.push_back({table, pool[random() % pool.size()]});
    }
    return lookups;
  }();
  return mix;
}

const char* Library(const CLookup& lookup) noexcept {
  switch (lookup.table) {
    case Table::kError:
      return GetCkErrorString(lookup.code);
    case Table::kAttribute:
      return GetCkAttributeTypeString(lookup.code);
    case Table::kMechanism:
      break;
  }
  return GetCkMechanismTypeString(lookup.code);
}

void BM_NameTables(benchmark::State& state) {
  const std::vector<CLookup>& mix = Mix();
  for (auto _ : state) {
    for (const CLookup& lookup : mix) benchmark::DoNotOptimize(Library(lookup));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(mix.size()));
}

void BM_UnorderedMap(benchmark::State& state) {
  const std::vector<CLookup>& mix = Mix();
  CTables& tables = Tables();
  for (auto _ : state) {
    for (const CLookup& lookup : mix) {
      benchmark::DoNotOptimize(tables.Of(lookup.table).Lookup(lookup.code));
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(mix.size()));
}

// Both sides must give the same text for every lookup of the mix.
bool SameAnswers() {
  for (const CLookup& lookup : Mix()) {
    const std::string ours = Library(lookup);
    const std::string theirs = Tables().Of(lookup.table).Lookup(lookup.code);
    if (ours != theirs) {
      std::cerr << "zelph_names_bench: code 0x" << std::hex << lookup.code << " gives " << ours
                << " but the map gives " << theirs << "\n";
      return false;
    }
  }
  return true;
}

BENCHMARK(BM_NameTables)->Name("Names/NameTables");
BENCHMARK(BM_UnorderedMap)->Name("Names/UnorderedMap");

}  // namespace
}  // namespace zelph::bench

int main(int argc, char** argv) {
  if (!zelph::bench::SameAnswers()) return 1;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
