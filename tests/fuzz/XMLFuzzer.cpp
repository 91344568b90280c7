// Fuzzes the XML reader and writer: arbitrary bytes are parsed as a
// document; a tree that the writer can express is written, parsed again and
// must come back the same. The writer leaves text unescaped and cannot write
// processing instructions, so trees with "<" or "&" in a text or with a
// processing instruction are only written, not read back.
#include <cstdint>
#include <utility>
#include <vector>

#include "FuzzSupport.h"
#include "common/base/CException.h"
#include "common/formats/XMLReader.h"
#include "common/formats/XMLWriter.h"

using namespace zelph;

namespace {

// True when writing the tree and reading it back must give the same tree.
bool Writable(const CXMLNode& root) {
  std::vector<const CXMLNode*> pending{&root};
  while (!pending.empty()) {
    const CXMLNode* node = pending.back();
    pending.pop_back();
    if (node->GetName().View().starts_with("?")) return false;
    const std::string_view text = node->GetText().View();
    if (text.find_first_of("<&") != std::string_view::npos) return false;
    for (const CXMLNodeRef& child : node->GetChildren()) pending.push_back(child.Get());
  }
  return true;
}

bool SameTree(const CXMLNode& a, const CXMLNode& b) {
  std::vector<std::pair<const CXMLNode*, const CXMLNode*>> pending{{&a, &b}};
  while (!pending.empty()) {
    const auto [x, y] = pending.back();
    pending.pop_back();
    if (x->GetName() != y->GetName() || x->GetText() != y->GetText()) return false;
    const auto& xa = x->GetAttributes();
    const auto& ya = y->GetAttributes();
    if (xa.size() != ya.size()) return false;
    for (std::size_t i = 0; i < xa.size(); ++i) {
      if (xa[i]->GetName() != ya[i]->GetName() || xa[i]->GetValue() != ya[i]->GetValue()) {
        return false;
      }
    }
    const auto& xc = x->GetChildren();
    const auto& yc = y->GetChildren();
    if (xc.size() != yc.size()) return false;
    for (std::size_t i = 0; i < xc.size(); ++i) pending.emplace_back(xc[i].Get(), yc[i].Get());
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  SwitchTracingOff();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CUTF8String text(reinterpret_cast<const char*>(data), size);
  CTStringCursor<CUTF8Encoding> cursor(text);
  CXMLNodeRef root;
  try {
    root = ParseXMLDocument(cursor);
  } catch (const CXMLException&) {
    return 0;
  }
  Require(root.Get() != nullptr, "a document without an error has a root");
  Require(cursor.GetIndex() <= text.Size(), "the cursor stays inside the text");

  CUTF8String written = WriteXML(*root);
  if (!Writable(*root)) return 0;
  CTStringCursor<CUTF8Encoding> again(written);
  CXMLNodeRef reread;
  try {
    reread = ParseXMLDocument(again);
  } catch (const CXMLException&) {
    Require(false, "the reader accepts what the writer wrote");
  }
  Require(again.GetIndex() == written.Size(), "the written element is read to its end");
  Require(SameTree(*root, *reread), "writing and reading back gives the same tree");
  Require(WriteXML(*reread) == written, "writing is stable");
  return 0;
}
