// XML parsing throughput against tinyxml2 and pugixml, from 1 KB to 1 MB.
// Every side copies the text into its own document, builds the whole tree and
// frees it again per iteration.
//
// The documents are token catalogues within what our reader accepts: a prolog
// right before the root, indentation, attributes in either quote, the five
// named references, one comment after a start tag, UTF-8 text.
#include <benchmark/benchmark.h>
#include <tinyxml2.h>

#include <cstdint>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <map>
#include <pugixml.hpp>
#include <string>

#include "FixedAllocator.h"
#include "common/base/CTString.h"
#include "common/formats/XMLReader.h"

namespace zelph::bench {
namespace {

constexpr std::size_t kSizes[] = {1 << 10, 32 << 10, 1 << 20};

// A token catalogue of about `size` bytes.
std::string MakeDocument(std::size_t size) {
  std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><catalog version='6.20.5'>\n";
  for (unsigned i = 0; text.size() + 600 < size || i == 0; ++i) {
    char entry[768];
    std::snprintf(entry, sizeof entry,
                  "  <token id=\"%u\" label='bench token %u' manufacturer=\"zelph &amp; co\">\n"
                  "    <!-- slot %u -->\n"
                  "    <slot>%u</slot>\n"
                  "    <serial>%08X%08X</serial>\n"
                  "    <object class=\"CKO_PRIVATE_KEY\" type=\"CKK_RSA\" bits=\"2048\">key %u "
                  "&lt;signing&gt;</object>\n"
                  "    <object class=\"CKO_CERTIFICATE\" type=\"CKC_X_509\">CN=R\xc3\xa9seau %u, "
                  "O=zelph</object>\n"
                  "    <flags rng='true' login=\"true\" initialized=\"true\"/>\n"
                  "  </token>\n",
                  i, i, i, i % 16, i * 2654435761u, ~i, i, i);
    text += entry;
  }
  text += "</catalog>\n";
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
    CUTF8String copy(text.data(), text.size());
    CTStringCursor<CUTF8Encoding> cursor(copy);
    CXMLNodeRef root = ParseXMLDocument(cursor);
    benchmark::DoNotOptimize(root.Get());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

void BM_TinyXml2(benchmark::State& state) {
  const std::string& text = Document(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    tinyxml2::XMLDocument document;
    document.Parse(text.data(), text.size());
    benchmark::DoNotOptimize(&document);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

void BM_PugiXml(benchmark::State& state) {
  const std::string& text = Document(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    pugi::xml_document document;
    document.load_buffer(text.data(), text.size());
    benchmark::DoNotOptimize(&document);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

// Every reader must see the same catalogue before any of them is timed.
bool SameDocuments() {
  for (const std::size_t size : kSizes) {
    const std::string& text = Document(size);
    CUTF8String copy(text.data(), text.size());
    CTStringCursor<CUTF8Encoding> cursor(copy);
    const CXMLNodeRef ours = ParseXMLDocument(cursor);

    tinyxml2::XMLDocument tiny;
    pugi::xml_document pugi;
    const bool parsed = tiny.Parse(text.data(), text.size()) == tinyxml2::XML_SUCCESS &&
                        pugi.load_buffer(text.data(), text.size());
    std::size_t tinyTokens = 0;
    for (auto* token = parsed ? tiny.RootElement()->FirstChildElement() : nullptr; token != nullptr;
         token = token->NextSiblingElement()) {
      ++tinyTokens;
    }
    const std::size_t pugiTokens =
        parsed ? static_cast<std::size_t>(std::distance(pugi.child("catalog").children().begin(),
                                                        pugi.child("catalog").children().end()))
               : 0;
    const auto& tokens = ours->GetChildren();
    if (!parsed || ours->GetName().View() != "catalog" || tokens.size() != tinyTokens ||
        tokens.size() != pugiTokens ||
        tokens.back()->GetChildren()[2]->GetText().View() !=
            tiny.RootElement()->LastChildElement()->FirstChildElement("object")->GetText()) {
      std::cerr << "zelph_xml_bench: the readers disagree on the " << size << "-byte document\n";
      return false;
    }
  }
  return true;
}

void Sizes(benchmark::internal::Benchmark* b) {
  for (const std::size_t size : kSizes) b->Arg(static_cast<std::int64_t>(size));
}

BENCHMARK(BM_Ours)->Name("Xml/Ours")->Apply(Sizes);
BENCHMARK(BM_TinyXml2)->Name("Xml/TinyXML2")->Apply(Sizes);
BENCHMARK(BM_PugiXml)->Name("Xml/pugixml")->Apply(Sizes);

}  // namespace
}  // namespace zelph::bench

int main(int argc, char** argv) {
  if (!zelph::bench::FixAllocatorThresholds()) {
    std::cerr << "zelph_xml_bench: could not fix the allocator's thresholds\n";
    return 1;
  }
  if (!zelph::bench::SameDocuments()) return 1;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
