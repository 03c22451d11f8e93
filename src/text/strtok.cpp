// Tokenizers: RSStrTok and SStrTok share one cutting routine.
#include <quenlib/strtok.h>

namespace QuenLibA500 {

namespace {

// Cuts the piece before the first occurrence of token from rest and
// drops it and the token. Without an occurrence the whole rest is the
// piece and rest becomes empty.
SAnsiString CutPiece(SAnsiString& rest, SAnsiString const& token) {
  if (rest.isEmpty()) return SAnsiString();
  SAnsiString::iterator at = rest.find(token);
  // find gives the end position when there is no occurrence.
  if (at - SAnsiString::iterator(rest) >= static_cast<ptrdiff_t>(rest.getLength())) {
    SAnsiString piece = rest;
    rest.empty();
    return piece;
  }
  SAnsiString piece = rest.left(at);
  // Step over the delimiter by its character count: the match compared
  // whole characters, so this lands just after it.
  SAnsiString::iterator after = at;
  after += token.getNChars();
  rest = rest.mid(after);
  return piece;
}

}  // namespace

SAnsiString RSStrTok::Next() { return CutPiece(m_rest, m_token); }

SAnsiString RSStrTok::Next(char const* delimiter) {
  SetToken(delimiter);
  return Next();
}

SAnsiString RSStrTok::Next(char delimiter) {
  SetToken(delimiter);
  return Next();
}

SAnsiString RSStrTok::LeftStr() { return Next(); }
SAnsiString RSStrTok::LeftStr(char const* delimiter) { return Next(delimiter); }
SAnsiString RSStrTok::LeftStr(char delimiter) { return Next(delimiter); }

SAnsiString RSStrTok::RightStr() {
  Next();
  return Next();
}

SAnsiString RSStrTok::RightStr(char const* delimiter) {
  SetToken(delimiter);
  return RightStr();
}

SAnsiString RSStrTok::RightStr(char delimiter) {
  SetToken(delimiter);
  return RightStr();
}

SStrTok::~SStrTok() = default;

SAnsiString SStrTok::Next() { return CutPiece(m_rest, m_token); }
SAnsiString SStrTok::LeftStr() { return Next(); }

SAnsiString SStrTok::RightStr() {
  Next();
  return GetString();
}

}  // namespace QuenLibA500
