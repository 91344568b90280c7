#include "common/formats/XMLReader.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <cwctype>
#include <string_view>
#include <utility>
#include <vector>

#include "common/base/CException.h"
#include "zelph/trace.h"
#include "common/base/CharClasses.h"

namespace zelph {

namespace {

using CCursor = CTStringCursor<CUTF8Encoding>;

[[noreturn]] void Fail(const char* message) {
  throw CXMLException(CUTF8String(message));
}

// The ASCII classes are the same in every locale, so only other characters
// ask the locale. ASCII is looked up in a table of classes.
constexpr unsigned char kSpace = 1;
constexpr unsigned char kNameStart = 2;
constexpr unsigned char kNameChar = 4;
constexpr unsigned char kPlainText = 8;  // taken by text as it stands

constexpr std::array<unsigned char, 128> MakeAsciiClasses() {
  std::array<unsigned char, 128> classes{};
  for (int c = 0; c < 128; ++c) {
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    const bool space = IsAsciiSpace(c);
    unsigned char bits = 0;
    if (space) bits |= kSpace;
    if (letter || c == '_' || c == ':') bits |= kNameStart;
    if (letter || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_' || c == ':') {
      bits |= kNameChar;
    }
    if (!space && c != '<' && c != '&') bits |= kPlainText;
    classes[static_cast<std::size_t>(c)] = bits;
  }
  return classes;
}
constexpr std::array<unsigned char, 128> kAsciiClasses = MakeAsciiClasses();

// True when `c` (0 to 127) is of class `bits`.
bool IsAscii(std::int32_t c, unsigned char bits) noexcept {
  return (kAsciiClasses[static_cast<std::size_t>(c)] & bits) != 0;
}

bool IsNameStart(std::int32_t c) noexcept {
  if (c < 0) return false;
  if (c < 0x80) return IsAscii(c, kNameStart);
  return std::iswalpha(static_cast<wint_t>(c)) != 0;
}

bool IsNameChar(std::int32_t c) noexcept {
  if (c < 0) return false;
  if (c < 0x80) return IsAscii(c, kNameChar);
  return std::iswalnum(static_cast<wint_t>(c)) != 0;
}

// Texts read before, handed out again so that their copies share one buffer
// instead of each taking one of its own: the names of a document repeat, and
// so do many short values. A small table: a text goes into one of a few
// slots picked by its hash, and is not kept when they are taken.
class CSharedTexts {
 public:
  // `text` as a string: a copy of the one kept for it, or a new one.
  CUTF8String Get(std::string_view text) {
    if (text.empty()) return {};
    const std::uint32_t hash = Hash(text);
    for (std::uint32_t probe = 0; probe < kProbes; ++probe) {
      CSlot& slot = slots_[(hash + probe) % kSlots];
      if (slot.index == 0) {
        texts_.emplace_back(text.data(), text.size());
        // The view stays valid: the kept string holds the bytes, and a
        // change to any copy of it copies them first.
        slot.view = texts_.back().View();
        slot.hash = hash;
        slot.index = static_cast<std::uint32_t>(texts_.size());
        return texts_.back();
      }
      if (slot.hash == hash && slot.view == text) return texts_[slot.index - 1];
    }
    return CUTF8String(text.data(), text.size());
  }

 private:
  static constexpr std::uint32_t kSlots = 128;
  static constexpr std::uint32_t kProbes = 4;

  // Mixes the text eight bytes at a time: short texts cost a multiply or two.
  static std::uint32_t Hash(std::string_view text) noexcept {
    constexpr std::uint64_t kMix = 0x9E3779B97F4A7C15ULL;
    std::uint64_t hash = text.size();
    std::size_t i = 0;
    for (; i + 8 <= text.size(); i += 8) {
      std::uint64_t word;
      std::memcpy(&word, text.data() + i, sizeof word);
      hash = (hash ^ word) * kMix;
    }
    std::uint64_t tail = 0;
    for (int shift = 0; i < text.size(); ++i, shift += 8) {
      tail |= std::uint64_t{static_cast<unsigned char>(text[i])} << shift;
    }
    hash = (hash ^ tail) * kMix;
    return static_cast<std::uint32_t>(hash >> 32);
  }

  // A place in the table; index is 1 + the text's place in texts_, 0 while
  // the slot is free.
  struct CSlot {
    std::string_view view;
    std::uint32_t hash = 0;
    std::uint32_t index = 0;
  };
  std::array<CSlot, kSlots> slots_{};
  std::vector<CUTF8String> texts_;
};

// The reader's state: the text it walks and its place in it, which goes back
// to the cursor when the reader is done (also after an error). The text is
// read byte by byte while it is ASCII and character by character otherwise,
// with the cursor's decoding rules; runs of ASCII that need no attention are
// copied at once.
class CReader {
 public:
  explicit CReader(CCursor& cursor) noexcept
      : cursor_(cursor),
        data_(reinterpret_cast<const unsigned char*>(cursor.GetString()->c_str())),
        size_(cursor.GetString()->Size()),
        index_(cursor.GetIndex()) {}
  CReader(const CReader&) = delete;
  CReader& operator=(const CReader&) = delete;
  ~CReader() { cursor_.SetIndex(index_); }

  // Reads one element with its content, see ParseXMLElement. Open elements
  // are kept on a stack of their own, so nesting depth costs no call depth.
  CXMLNodeRef ReadElement() {
    CXMLNodeRef root;
    if (!ReadStartTag(root)) return root;
    std::vector<CXMLNodeRef> open{root};
    for (;;) {
      CXMLNode& element = *open.back();
      element.AppendText(ReadTextPiece());
      Skip();
      if (LookingAt("</")) {
        ReadEndTag(element);
        open.pop_back();
        if (open.empty()) return root;
        Skip();
        continue;
      }
      CXMLNodeRef child;
      const bool hasContent = ReadStartTag(child);
      element.AddChild(child);
      if (hasContent) {
        open.push_back(std::move(child));
      } else {
        Skip();
      }
    }
  }

 private:
  // True when the byte at `i` is ASCII, which is a character of its own.
  bool AsciiAt(std::uint64_t i) const noexcept { return i < size_ && data_[i] < 0x80; }

  std::int32_t NextAt(std::uint64_t& i) const noexcept {
    if (AsciiAt(i)) return data_[i++];
    return DecodeUTF8At(data_, size_, i);
  }
  std::int32_t Peek() const noexcept {
    std::uint64_t i = index_;
    return NextAt(i);
  }
  std::int32_t Next() noexcept { return NextAt(index_); }

  // Appends the bytes from `start` to the reader's place.
  void AppendSince(CUTF8String& text, std::uint64_t start) {
    if (index_ > start)
      text.AppendBytes(reinterpret_cast<const char*>(data_ + start), index_ - start);
  }

  // True when the next characters are the ASCII text `text`.
  bool LookingAt(std::string_view text) const noexcept {
    std::uint64_t i = index_;
    for (const char c : text) {
      if (NextAt(i) != c) return false;
    }
    return true;
  }

  void SkipSpace() noexcept {
    for (;;) {
      while (AsciiAt(index_) && IsAscii(data_[index_], kSpace)) ++index_;
      if (AsciiAt(index_) || !IsSpaceChar(Peek())) return;
      Next();
    }
  }

  // White space, then at most one comment and the white space behind it.
  void Skip() {
    SkipSpace();
    if (AsciiAt(index_) && data_[index_] != '<') return;
    if (!LookingAt("<!--")) return;
    for (int i = 0; i < 4; ++i) Next();
    int dashes = 0;
    for (;;) {
      const std::int32_t c = Next();
      if (c < 0) {
        TraceString("Warning: XML Comment never ends");
        return;
      }
      if (c == '>' && dashes >= 2) break;
      dashes = c == '-' ? dashes + 1 : 0;
    }
    SkipSpace();
  }

  // A name, or the empty string when none starts here. Names repeat, so an
  // ASCII name read before shares the earlier one's buffer.
  CUTF8String ReadName() {
    CUTF8String name;
    if (!IsNameStart(Peek())) return name;
    std::uint64_t start = index_;
    while (AsciiAt(index_) && IsAscii(data_[index_], kNameChar)) ++index_;
    if (!IsNameChar(Peek())) return names_.Get(TextSince(start));
    for (;;) {
      AppendSince(name, start);
      const std::int32_t c = Peek();
      if (!IsNameChar(c)) return name;
      name.AppendChar(static_cast<std::uint32_t>(Next()));
      start = index_;
      while (AsciiAt(index_) && IsAscii(data_[index_], kNameChar)) ++index_;
    }
  }

  // The ASCII text from `start` to the reader's place.
  std::string_view TextSince(std::uint64_t start) const noexcept {
    return {reinterpret_cast<const char*>(data_ + start), index_ - start};
  }

  // The character a reference stands for; the "&" has been read.
  std::uint32_t ReadReference() {
    const CUTF8String name = ReadName();
    if (Peek() != ';') Fail("XML: ';' character expected");
    Next();
    const std::string_view n = name.View();
    if (n == "lt") return '<';
    if (n == "gt") return '>';
    if (n == "amp") return '&';
    if (n == "apos") return '\'';
    if (n == "quot") return '"';
    Fail("XML: Invalid character reference");
  }

  // A quoted attribute value with its references replaced.
  CUTF8String ReadAttributeValue() {
    const std::int32_t quote = Peek();
    if (quote != '"' && quote != '\'') Fail("XML: Expecting quotes for attribute value");
    Next();
    CUTF8String value;
    for (bool first = true;; first = false) {
      const std::uint64_t start = index_;
      while (AsciiAt(index_) && data_[index_] != quote && data_[index_] != '&') ++index_;
      if (first && index_ < size_ && data_[index_] == quote) {
        // The usual value: plain ASCII up to its closing quote.
        const std::string_view text = TextSince(start);
        ++index_;
        return text.size() <= kSharedLength ? values_.Get(text)
                                            : CUTF8String(text.data(), text.size());
      }
      AppendSince(value, start);
      const std::int32_t c = Next();
      if (c < 0) Fail("XML: End of file within attribute value");
      if (c == quote) return value;
      value.AppendChar(c == '&' ? ReadReference() : static_cast<std::uint32_t>(c));
    }
  }

  void ReadAttributes(CXMLNode& element) {
    for (;;) {
      const CUTF8String name = ReadName();
      if (name.IsEmpty()) return;
      Skip();
      if (Peek() != '=') Fail("XML: '=' character expected");
      Next();
      Skip();
      const CUTF8String value = ReadAttributeValue();
      element.AddAttribute(name, value);
      Skip();
    }
  }

  // Reads a start tag, an empty-element tag or a processing instruction into
  // `element`. Returns true when content follows (the tag ended with ">").
  bool ReadStartTag(CXMLNodeRef& element) {
    if (Peek() != '<') Fail("XML: '<' character expected");
    Next();
    if (Peek() == '?') {
      Next();
      const CUTF8String target = ReadName();
      if (target.IsEmpty()) Fail("XML: Tag name expected");
      element = MakeRef<CXMLNode>(CUTF8String("?") + target);
      Skip();
      ReadAttributes(*element);
      if (Next() != '?' || Next() != '>') Fail("XML: '?>' sequence expected");
      return false;
    }
    const CUTF8String name = ReadName();
    if (name.IsEmpty()) Fail("XML: Tag name expected");
    element = MakeRef<CXMLNode>(name);
    Skip();
    ReadAttributes(*element);
    const std::int32_t c = Peek();
    if (c == '/') {
      Next();
      if (Next() != '>') Fail("XML: '>' character expected");
      return false;
    }
    if (c != '>') Fail("XML: '>' or '/>' sequence expected");
    Next();
    Skip();
    return true;
  }

  // True for an ASCII byte that text takes as it stands.
  static bool IsPlainTextByte(unsigned char b) noexcept {
    return b < 0x80 && IsAscii(b, kPlainText);
  }

  // Character data up to the next "<", references replaced, white space at
  // its end held back until something else follows.
  CUTF8String ReadTextPiece() {
    CUTF8String piece;
    CUTF8String heldSpace;
    for (;;) {
      if (AsciiAt(index_) && IsAscii(data_[index_], kPlainText | kSpace)) {
        // A run of ASCII text and white space: what lies up to its last
        // text byte goes in at once, the white space behind that is held.
        const std::uint64_t start = index_;
        std::uint64_t textEnd = start;
        for (; AsciiAt(index_) && IsAscii(data_[index_], kPlainText | kSpace); ++index_) {
          if (IsAscii(data_[index_], kPlainText)) textEnd = index_ + 1;
        }
        const bool atTag = AsciiAt(index_) && data_[index_] == '<';
        if (textEnd > start) {
          if (!heldSpace.IsEmpty()) {
            piece += heldSpace;
            heldSpace.Clear();
          }
          const std::string_view text(reinterpret_cast<const char*>(data_ + start),
                                      textEnd - start);
          if (atTag && piece.IsEmpty() && text.size() <= kSharedLength) {
            return values_.Get(text);  // a short text such as "1" or "true"
          }
          piece.AppendBytes(text.data(), text.size());
        }
        if (atTag) return piece;
        if (index_ > textEnd) {
          heldSpace.AppendBytes(reinterpret_cast<const char*>(data_ + textEnd), index_ - textEnd);
        }
        continue;
      }
      std::int32_t c = Peek();
      if (c < 0) Fail("XML: Unclosed tag");
      if (c == '<') return piece;
      Next();
      if (c == '&') {
        c = static_cast<std::int32_t>(ReadReference());
      } else if (IsSpaceChar(c)) {
        heldSpace.AppendChar(static_cast<std::uint32_t>(c));
        continue;
      }
      if (!heldSpace.IsEmpty()) {
        piece += heldSpace;
        heldSpace.Clear();
      }
      piece.AppendChar(static_cast<std::uint32_t>(c));
    }
  }

  // Reads "</name ...>" closing `element`; a different name is only
  // reported.
  void ReadEndTag(const CXMLNode& element) {
    Next();
    Next();
    if (ReadName() != element.GetName()) TraceString("Warning: XML: Inconsistent ending tag");
    for (;;) {
      const std::int32_t c = Next();
      if (c < 0) Fail("XML: '>' character expected");
      if (c == '>') return;
    }
  }

  // Values and texts up to this length are shared: longer ones seldom
  // repeat.
  static constexpr std::size_t kSharedLength = 16;

  CCursor& cursor_;
  const unsigned char* data_;
  std::uint64_t size_;
  std::uint64_t index_;
  CSharedTexts names_;
  CSharedTexts values_;
};

}  // namespace

CXMLNodeRef ParseXMLElement(CTStringCursor<CUTF8Encoding>& cursor) {
  return CReader(cursor).ReadElement();
}

CXMLNodeRef ParseXMLDocument(CTStringCursor<CUTF8Encoding>& cursor) {
  CReader reader(cursor);
  CXMLNodeRef element = reader.ReadElement();
  if (element->GetName().View() == "?xml") element = reader.ReadElement();
  return element;
}

}  // namespace zelph
