#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "common/base/CException.h"
#include "common/formats/XMLReader.h"
#include "common/formats/XMLWriter.h"

namespace zelph {
namespace {

// Switches tracing on into a private directory before the first trace call
// of the process, so that the reader's warnings can be seen in the log.
class CTraceLogEnvironment : public testing::Environment {
 public:
  void SetUp() override {
    dir_ = (std::filesystem::temp_directory_path() / "zelph-formats-XXXXXX").string();
    ASSERT_NE(mkdtemp(dir_.data()), nullptr);
    const std::string conf = dir_ + "/trace.conf";
    std::ofstream(conf) << "Quillon {\n EnableTrace = 1\n Trace = " << dir_ << "\n}\n";
    setenv("ZELPH_CONFFILE", conf.c_str(), 1);
  }
  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }

  // Everything the trace log of this process holds so far.
  static std::string ReadLog() {
    for (const auto& entry : std::filesystem::directory_iterator(dir_)) {
      if (entry.path().filename().string().rfind("zelph_", 0) == 0) {
        std::ifstream in(entry.path(), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
      }
    }
    return "";
  }

 private:
  static inline std::string dir_;
};

const auto* const kTraceLog = testing::AddGlobalTestEnvironment(new CTraceLogEnvironment);

std::size_t CountOf(const std::string& text, const std::string& what) {
  std::size_t count = 0;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

// The tree in one line: name[attributes]{children}"text", parts shown only
// when present.
std::string Dump(const CXMLNode& node) {
  std::string out(node.GetName().View());
  if (!node.GetAttributes().empty()) {
    out += "[";
    for (const auto& a : node.GetAttributes()) {
      out += std::string(a->GetName().View()) + "=" + std::string(a->GetValue().View()) + ";";
    }
    out += "]";
  }
  if (!node.GetChildren().empty()) {
    out += "{";
    for (const auto& child : node.GetChildren()) out += Dump(*child) + ";";
    out += "}";
  }
  if (!node.GetText().IsEmpty()) out += "\"" + std::string(node.GetText().View()) + "\"";
  return out;
}

// The tree, or "error: " and the exception's text.
std::string ParseToDump(const std::string& text) {
  CUTF8String input(text.data(), text.size());
  CTStringCursor<CUTF8Encoding> cursor(input);
  try {
    return Dump(*ParseXMLDocument(cursor));
  } catch (const CXMLException& e) {
    return "error: " + std::string(e.GetEvent().GetText().View());
  }
}

struct ParseCase {
  std::string text;
  std::string tree;
};

const ParseCase kParseCases[] = {
    // Trees, attributes, texts.
    {"<a x='1' y=\"2\"/>", "a[x=1;y=2;]"},
    {"<a x = '1'\n\ty=\"a'b\" x='&apos;&quot;&gt;'/>", "a[x=1;y=a'b;x='\">;]"},
    {"<?xml version='1.0'?><r>t</r>", "r\"t\""},
    {"<?xml version='1.0'?><?pi?><r/>", "?pi"},
    {"<r/>trailing junk <", "r"},
    {"<a>&lt;&amp;</a>", "a\"<&\""},
    {"<a><!-- c --><b/></a>", "a{b;}"},
    {"<a><!--1--><!--2--><b/></a>", "a{b;}"},  // one skip before the text, one after
    {"<a> x <b/> y </a>", "a{b;}\"xy\""},
    {"<a>x  y\n</a >", "a\"x  y\""},
    {"<a>x<!-- c -->\n<b/>y</a>", "a{b;}\"xy\""},
    {"<a><b><c d='e'/>t</b><?p q='r'?></a>", "a{b{c[d=e;];}\"t\";?p[q=r;];}"},
    {"<a:b-c.d _e='1'></a:b-c.d>", "a:b-c.d[_e=1;]"},
    {"<a>\xC3\xA9\xFF</a>", "a\"\xC3\xA9?\""},
    {"<a><!-- - -- ---></a>", "a"},
    // Failures, each with its message.
    {"", "error: XML: '<' character expected"},
    {" <a/>", "error: XML: '<' character expected"},
    {"<?xml version='1.0'?>\n<r>t</r>", "error: XML: '<' character expected"},
    {"<a>x<!-- c -->y</a>", "error: XML: '<' character expected"},
    {"<>", "error: XML: Tag name expected"},
    {"<?>", "error: XML: Tag name expected"},
    {"<!DOCTYPE a><a/>", "error: XML: Tag name expected"},
    {"<a><![CDATA[x]]></a>", "error: XML: Tag name expected"},
    {"<a><!--1--><!--2--><!--3--></a>", "error: XML: Tag name expected"},
    {"<a><b/><!--1--><!--2--><!--3--></a>", "error: XML: Tag name expected"},
    {"<?pi x='1'>", "error: XML: '?>' sequence expected"},
    {"<a/ >", "error: XML: '>' character expected"},
    {"<a></a", "error: XML: '>' character expected"},
    {"<a x='1'", "error: XML: '>' or '/>' sequence expected"},
    {"<a x>", "error: XML: '=' character expected"},
    {"<a x=1/>", "error: XML: Expecting quotes for attribute value"},
    {"<a x='1/>", "error: XML: End of file within attribute value"},
    {"<a>&#38;</a>", "error: XML: ';' character expected"},
    {"<a>&amp</a>", "error: XML: ';' character expected"},
    {"<a x='&'/>", "error: XML: ';' character expected"},
    {"<a>&nbsp;</a>", "error: XML: Invalid character reference"},
    {"<a>&;</a>", "error: XML: Invalid character reference"},
    {"<a x='&LT;'/>", "error: XML: Invalid character reference"},
    {"<a>text", "error: XML: Unclosed tag"},
    {"<a><b></b>", "error: XML: Unclosed tag"},
    {"<a>\xE2\x82", "error: XML: Unclosed tag"},
};

TEST(XMLReader, TextGivesExpectedTreeOrMessage) {
  for (const auto& c : kParseCases) {
    EXPECT_EQ(ParseToDump(c.text), c.tree) << "input: " << c.text;
  }
}

TEST(XMLReader, EveryPrefixOfADocumentFailsCleanly) {
  const std::string document =
      "<?xml version='1.0'?><r a='x&amp;y'><!-- c --><s>t &lt; u</s><e/>\xC3\xA9</r>";
  for (std::size_t n = 0; n < document.size(); ++n) {
    const std::string result = ParseToDump(document.substr(0, n));
    EXPECT_EQ(result.rfind("error: XML", 0), 0u) << "a cut document must fail; got " << result;
  }
  EXPECT_EQ(ParseToDump(document), "r[a=x&y;]{s\"t < u\";e;}\"\xC3\xA9\"");
}

TEST(XMLReader, ElementLeavesTheCursorBehindItsEnd) {
  CUTF8String input("<a><b/></a>rest");
  CTStringCursor<CUTF8Encoding> cursor(input);
  const CXMLNodeRef a = ParseXMLElement(cursor);
  EXPECT_EQ(input.Tail(cursor).View(), "rest");
  EXPECT_EQ(Dump(*a), "a{b;}");
}

TEST(XMLReader, OdditiesAreTracedNotThrown) {
  const std::string before = CTraceLogEnvironment::ReadLog();
  EXPECT_EQ(ParseToDump("<a>x</b>"), "a\"x\"");
  EXPECT_EQ(ParseToDump("<a><!-- never ends"), "error: XML: Unclosed tag");
  const std::string after = CTraceLogEnvironment::ReadLog();
  EXPECT_EQ(CountOf(after, "Warning: XML: Inconsistent ending tag"),
            CountOf(before, "Warning: XML: Inconsistent ending tag") + 1)
      << "log:\n"
      << after;
  EXPECT_EQ(CountOf(after, "Warning: XML Comment never ends"),
            CountOf(before, "Warning: XML Comment never ends") + 1)
      << "log:\n"
      << after;
}

TEST(XMLWriter, WritesApostropheQuotesEscapesAndTextLast) {
  const CXMLNodeRef e = MakeRef<CXMLNode>("e");
  e->AddAttribute("v", "it's");
  EXPECT_EQ(WriteXML(*e).View(), "<e v='it&apos;s'/>");
  e->AddAttribute("w", "<\"&>");
  EXPECT_EQ(WriteXML(*e).View(), "<e v='it&apos;s' w='&lt;&quot;&amp;&gt;'/>");

  struct Case {
    const char* source;
    const char* written;
  };
  const Case cases[] = {
      {"<a>&lt;&amp;</a>", "<a><&</a>"},  // text is not escaped
      {"<a>x<b/>y<c>z</c></a>", "<a><b/><c>z</c>xy</a>"},
      {"<?xml version='1.0'?><r x=\"1\"></r>", "<r x='1'/>"},
  };
  for (const auto& c : cases) {
    CUTF8String input(c.source);
    CTStringCursor<CUTF8Encoding> cursor(input);
    EXPECT_EQ(WriteXML(*ParseXMLDocument(cursor)).View(), c.written) << "source: " << c.source;
  }
}

TEST(XMLWriter, WrittenTreesParseBackUnchanged) {
  // Every tree of the parse table whose texts hold no "<" or "&" and that
  // has no processing instruction (written as "<?name/>").
  std::size_t checked = 0;
  for (const auto& c : kParseCases) {
    if (c.tree.rfind("error", 0) == 0 || c.tree.find_first_of("<&?") != std::string::npos) continue;
    CUTF8String input(c.text.data(), c.text.size());
    CTStringCursor<CUTF8Encoding> cursor(input);
    const CUTF8String written = WriteXML(*ParseXMLDocument(cursor));
    EXPECT_EQ(ParseToDump(std::string(written.View())), c.tree) << "written: " << written.View();
    ++checked;
  }
  EXPECT_GT(checked, 10u);
}

TEST(CXMLNode, DeepTreesAndSharedSubtrees) {
  const std::size_t depth = 100000;
  std::string deep;
  for (std::size_t i = 0; i < depth; ++i) deep += "<a>";
  deep += "x";
  for (std::size_t i = 0; i < depth; ++i) deep += "</a>";
  CUTF8String input(deep.c_str());
  CTStringCursor<CUTF8Encoding> cursor(input);
  CXMLNodeRef root = ParseXMLDocument(cursor);
  EXPECT_EQ(WriteXML(*root).View(), deep) << "deep trees must be written whole";

  // A handle kept on an inner node keeps that node's own subtree when the
  // rest of the tree goes.
  const CXMLNodeRef inner = root->GetChildren()[0]->GetChildren()[0];
  root.Reset();
  ASSERT_EQ(inner->GetReferences(), 1u);
  ASSERT_EQ(inner->GetChildren().size(), 1u) << "the released tree stripped a shared node";
  EXPECT_EQ(inner->GetChildren()[0]->GetChildren().size(), 1u);
}

}  // namespace
}  // namespace zelph
