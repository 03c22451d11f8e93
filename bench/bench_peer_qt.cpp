// The library against Qt 6 (QtCore), row by row on the same inputs. Each
// Qt row first checks, outside the timing, that Qt's output equals ours;
// a row whose outputs differ reports an error instead of a time.
// bench/peer_ratios.py turns the output into the Peers table.
#include "peer_ours.h"

#include <QByteArray>
#include <QDateTime>
#include <QSettings>
#include <QString>
#include <QTimeZone>

using namespace QuenLibA500;

namespace peer {
namespace {

QByteArray Bytes(std::string const& s) { return QByteArray(s.data(), static_cast<qsizetype>(s.size())); }
std::string QStd(QByteArray const& b) { return std::string(b.constData(), static_cast<size_t>(b.size())); }
std::string QStd(QString const& s) { return QStd(s.toUtf8()); }

bool SameUnits(SBrimString const& ours, QString const& theirs) {
  return ours.getLength() == static_cast<unsigned>(theirs.size()) &&
         std::memcmp(ours.getString(), theirs.utf16(), ours.getLength() * sizeof(char16_t)) == 0;
}

// Skips the row with an error when the two sides disagree.
bool Check(benchmark::State& state, bool same) {
  if (!same) state.SkipWithError("outputs differ from ours");
  return same;
}

void Qt_Copy(benchmark::State& state) {
  QByteArray src = Bytes(RandomText(static_cast<size_t>(state.range(0)), 1));
  for (auto _ : state) {
    QByteArray copy(src);
    benchmark::DoNotOptimize(copy.constData());
  }
}
BENCHMARK(Qt_Copy)->Arg(kSmall)->Arg(kLarge);

void Qt_CopyModify(benchmark::State& state) {
  std::string const text = RandomText(static_cast<size_t>(state.range(0)), 1);
  QByteArray src = Bytes(text);
  SAnsiString ours(text.c_str());
  ours.setAt(kModifyAt, 'X');
  QByteArray check(src);
  check[kModifyAt] = 'X';
  if (!Check(state, Std(ours) == QStd(check) && QStd(src) == text)) return;
  for (auto _ : state) {
    QByteArray copy(src);
    copy[kModifyAt] = 'X';
    benchmark::DoNotOptimize(copy.constData());
  }
}
BENCHMARK(Qt_CopyModify)->Arg(kSmall)->Arg(kLarge);

void Qt_Append1M(benchmark::State& state) {
  for (auto _ : state) {
    QByteArray s;
    for (int i = 0; i < kAppends; ++i) s += 'a';
    benchmark::DoNotOptimize(s.constData());
  }
}
BENCHMARK(Qt_Append1M)->Unit(benchmark::kMillisecond);

void Qt_Append1MWide(benchmark::State& state) {
  for (auto _ : state) {
    QString s;
    for (int i = 0; i < kAppends; ++i) s += QChar(u'a');
    benchmark::DoNotOptimize(s.constData());
  }
}
BENCHMARK(Qt_Append1MWide)->Unit(benchmark::kMillisecond);

// QByteArray is the peer of both narrow flavours.
void Qt_FindBytes(benchmark::State& state) {
  QByteArray hay = Bytes(Haystack()), needle = Bytes(kNeedle);
  SAnsiString oh(Haystack().c_str()), on(kNeedle.c_str());
  if (!Check(state, hay.indexOf(needle) == Position(oh, on))) return;
  for (auto _ : state) benchmark::DoNotOptimize(hay.indexOf(needle));
}
BENCHMARK(Qt_FindBytes)->Name("Qt_FindAnsi")->Unit(benchmark::kMicrosecond);
BENCHMARK(Qt_FindBytes)->Name("Qt_FindAscii")->Unit(benchmark::kMicrosecond);

void Qt_FindWide(benchmark::State& state) {
  QString hay = QString::fromLatin1(Bytes(Haystack())), needle = QString::fromLatin1(Bytes(kNeedle));
  SWCharString oh = OursText<SWCharString>(Haystack()), on = OursText<SWCharString>(kNeedle);
  if (!Check(state, hay.indexOf(needle) == Position(oh, on))) return;
  for (auto _ : state) benchmark::DoNotOptimize(hay.indexOf(needle));
}
BENCHMARK(Qt_FindWide)->Unit(benchmark::kMicrosecond);

// Qt's encoder leaves -._~ alone unless asked and writes a space as %20;
// ours passes letters and digits only and writes a space as "+".
void Qt_UrlEncode(benchmark::State& state) {
  QByteArray in = Bytes(UrlText());
  std::string theirs = QStd(in.toPercentEncoding(QByteArray(), "-._~"));
  std::string ours = Std(CNameValuePairs::URLStrEncode(UrlText().c_str()));
  for (size_t at = 0; (at = ours.find('+', at)) != std::string::npos;) ours.replace(at, 1, "%20");
  if (!Check(state, ours == theirs)) return;
  for (auto _ : state) benchmark::DoNotOptimize(in.toPercentEncoding(QByteArray(), "-._~"));
}
BENCHMARK(Qt_UrlEncode)->Unit(benchmark::kMicrosecond);

void Qt_UrlDecode(benchmark::State& state) {
  QByteArray in = Bytes(UrlEncoded());
  std::string ours = Std(CNameValuePairs::URLStrDecode(UrlEncoded().c_str()));
  if (!Check(state, ours == QStd(QByteArray::fromPercentEncoding(in)) && ours == UrlText())) return;
  for (auto _ : state) benchmark::DoNotOptimize(QByteArray::fromPercentEncoding(in));
}
BENCHMARK(Qt_UrlDecode)->Unit(benchmark::kMicrosecond);

void Qt_Utf8To16(benchmark::State& state) {
  std::string const& text = Utf8Sample(static_cast<int>(state.range(0)));
  QByteArray in = Bytes(text);
  if (!Check(state, SameUnits(OursUtf8To16(text), QString::fromUtf8(in)))) return;
  for (auto _ : state) benchmark::DoNotOptimize(QString::fromUtf8(in));
}
BENCHMARK(Qt_Utf8To16)->DenseRange(0, 2)->Unit(benchmark::kMicrosecond);

void Qt_Utf16To8(benchmark::State& state) {
  std::string const& text = Utf8Sample(static_cast<int>(state.range(0)));
  QString in = QString::fromUtf8(Bytes(text));
  if (!Check(state, QStd(in.toUtf8()) == OursUtf16To8(OursUtf8To16(text)))) return;
  for (auto _ : state) benchmark::DoNotOptimize(in.toUtf8());
}
BENCHMARK(Qt_Utf16To8)->DenseRange(0, 2)->Unit(benchmark::kMicrosecond);

void Qt_DateFormat(benchmark::State& state) {
  QTimeZone zone("America/New_York");
  QString const pattern = QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz");
  auto format = [&](int64_t ms) { return QDateTime::fromMSecsSinceEpoch(ms, zone).toString(pattern); };
  for (int64_t i = 0; i < 4000; i += 7) {
    if (!Check(state, QStd(format(InstantAt(i))) == Std(OursFormat(InstantAt(i))))) return;
  }
  int64_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(format(InstantAt(i++)));
}
BENCHMARK(Qt_DateFormat);

void Qt_IntToText(benchmark::State& state) {
  for (int i = 0; i < kIntegerCount; ++i) {
    long long v = IntegerAt(i);
    if (!Check(state, QStd(QByteArray::number(v)) == Std(SAnsiStringConv::ToString(v, 10)))) return;
  }
  int i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(QByteArray::number(static_cast<qlonglong>(IntegerAt(i++))));
}
BENCHMARK(Qt_IntToText);

void Qt_TextToInt(benchmark::State& state) {
  QByteArray texts[kIntegerCount];
  for (int i = 0; i < kIntegerCount; ++i) {
    texts[i] = QByteArray::number(static_cast<qlonglong>(IntegerAt(i)));
    bool ok = false;
    if (!Check(state, texts[i].toLongLong(&ok) == IntegerAt(i) && ok)) return;
  }
  int i = 0;
  for (auto _ : state) {
    bool ok = false;
    benchmark::DoNotOptimize(texts[i++ % kIntegerCount].toLongLong(&ok));
    benchmark::DoNotOptimize(ok);
  }
}
BENCHMARK(Qt_TextToInt);

// QSettings keeps the parsed INI file in memory after the first read.
void Qt_ConfigRead(benchmark::State& state) {
  QSettings settings(QString::fromStdString(IniPath()), QSettings::IniFormat);
  QString const key = QStringLiteral("%1/%2").arg(kIniSection, kIniKey);
  std::string ours = Std(OursConfig().getValue(kIniSection, kIniKey, ""));
  if (!Check(state, QStd(settings.value(key).toString()) == kIniValue && ours == kIniValue)) return;
  for (auto _ : state) benchmark::DoNotOptimize(settings.value(key).toString());
}
BENCHMARK(Qt_ConfigRead);
// The registry row's peer is the same QSettings read.
BENCHMARK(Qt_ConfigRead)->Name("Qt_RegistryRead");

void Qt_CompareNoCase(benchmark::State& state) {
  QByteArray a = Bytes(kCaseA), b = Bytes(kCaseB);
  bool ours = SAnsiStringCI(kCaseA.c_str()).compareNoCase(SAnsiString(kCaseB.c_str())) == 0;
  if (!Check(state, ours && a.compare(b, Qt::CaseInsensitive) == 0)) return;
  for (auto _ : state) benchmark::DoNotOptimize(a.compare(b, Qt::CaseInsensitive) == 0);
}
BENCHMARK(Qt_CompareNoCase);

void Qt_CompareNoCaseWide(benchmark::State& state) {
  QString a = QString::fromLatin1(Bytes(kCaseA)), b = QString::fromLatin1(Bytes(kCaseB));
  bool ours = OursText<SWCharString>(kCaseA).compareNoCase(OursText<SWCharString>(kCaseB)) == 0;
  if (!Check(state, ours && QString::compare(a, b, Qt::CaseInsensitive) == 0)) return;
  for (auto _ : state) benchmark::DoNotOptimize(QString::compare(a, b, Qt::CaseInsensitive) == 0);
}
BENCHMARK(Qt_CompareNoCaseWide);

}  // namespace
}  // namespace peer

int main(int argc, char** argv) { return peer::RunPeerMain(argc, argv); }
