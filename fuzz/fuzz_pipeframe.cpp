// Feeds arbitrary bytes to the pipe frame reader, as a confused or hostile
// child would send them, then closes the writer. The reader must end with
// frames or a CSIPipeException, never crash, hang or read past the input.
#include <quenlib/csipipe.h>

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

using namespace QuenLibA500;

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  // More than a pipe holds would block the single-threaded writer.
  if (size > 60000) return 0;
  // No time-out: every byte is written and the writer closed before the
  // first read, so the end of the input ends the frames, however slow the
  // machine (time-outs are the unit tests' business).
  CSIPipeServer pipe(1, false, false);
  int const writer = static_cast<int>(std::stoul(pipe.GetWritePipe().getString(), nullptr, 16));
  if (size > 0 && ::write(writer, data, size) != static_cast<ssize_t>(size)) std::abort();
  pipe.ClosePipesOnExec();
  size_t consumed = 0;
  try {
    for (;;) {
      SAnsiString frame = pipe.ReadString();
      consumed += 1 + frame.getLength();  // at least the digit count
      if (consumed > size) std::abort();
    }
  } catch (CSIPipeException const& e) {
    if (e.ErrCode() != CSIPipeException::readFailed && e.ErrCode() != CSIPipeException::badFrame) std::abort();
  }
  return 0;
}
