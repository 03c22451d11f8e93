// csipipe.h: framed text messages between a parent process and its child.
//
// The parent makes a `CSIPipeServer`: two anonymous pipes, one each way.
// It puts the child's two ends on the child's command line as hexadecimal
// descriptor texts, starts the child, then closes its copies of the child's
// ends. The child builds a `CSIPipeClient` from those texts. Both sides then
// exchange whole strings:
//
//   // parent
//   CSIPipeServer pipe(10, true, false);          // 10 s read time-out
//   CParamLineArgs args;
//   args.AddArg(pipe.GetReadPipe().getString());
//   args.AddArg(pipe.GetWritePipe().getString());
//   CSIProcess::Child child;
//   CSIProcess::NewProcessAsyncEx("./worker", args, child, true, nullptr);
//   pipe.ClosePipesOnExec();
//   pipe.WriteString("hello");
//   SAnsiString answer = pipe.ReadString();
//
//   // child ("./worker 5 8")
//   CSIPipeClient pipe(argv[1], argv[2], 10, true, false);
//   SAnsiString request = pipe.ReadString();
//   pipe.WriteString(request);
//
// A frame is one hexadecimal digit giving the number of length digits, the
// length in hexadecimal, then the bytes: "hello" travels as "15hello", the
// empty string as "10". Every failure throws `CSIPipeException`. A write to
// a pipe whose reader has gone throws too; it never raises SIGPIPE.
//
// Time-outs count from the start of `ReadString` over the whole frame, on
// the monotonic clock. `throwEintr` decides what a signal during a read
// does: true throws the "interrupted" exception, false goes on waiting for
// the time that remains.
//
// Copies of a pipe object share its descriptors; the last copy closes them.
// A pipe object belongs to one thread at a time.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

#include <exception>
#include <memory>

namespace QuenLibA500 {

class QUENLIB_API CSIPipeException : public std::exception {
 public:
  enum ErrorCodes {
    createFailed = 1,  // pipe2 failed
    writeFailed = 2,   // a write did not move all its bytes
    tooLarge = 3,      // a string beyond 2147483646 bytes
    readFailed = 4,    // a read failed, or the writer closed its end
    timedOut = 5,      // the time-out ran out during a frame
    interrupted = 6,   // a signal arrived and throwEintr is set
    noMemory = 7,      // the frame's buffer could not be allocated
    badFrame = 8,      // the frame header is not hexadecimal or too long
  };

  CSIPipeException(ErrorCodes code, SAnsiString const& text, int osError = 0);
  ~CSIPipeException() override;
  CSIPipeException(CSIPipeException const&) = default;
  CSIPipeException& operator=(CSIPipeException const&) = default;

  ErrorCodes ErrCode() const noexcept { return m_code; }
  // The errno value behind the failure, 0 when there was none.
  int getOsError() const noexcept { return m_osError; }
  SAnsiString toString() const { return m_text; }
  char const* what() const noexcept override { return m_text.getString(); }

 private:
  ErrorCodes m_code;
  int m_osError;
  SAnsiString m_text;
};

// The settings and the frame code shared by both sides.
class QUENLIB_API CSIPipe {
 public:
  // The longest string a frame carries when written, and when read.
  static constexpr unsigned kMaxWriteLength = 2147483646u;
  static constexpr unsigned kMaxReadLength = 268435455u;

  CSIPipe(unsigned short timeout, bool useTimeout, bool throwEintr);
  virtual ~CSIPipe();
  CSIPipe(CSIPipe const&) = default;
  CSIPipe& operator=(CSIPipe const&) = default;

  void setTimeout(unsigned int seconds) { m_timeout = seconds; }
  unsigned int getTimeout() const { return m_timeout; }
  void setUseTimeout(bool use) { m_useTimeout = use; }
  bool getUseTimeout() const { return m_useTimeout; }
  void setThrowEintr(bool value) { m_throwEintr = value; }
  bool getThrowEintr() const { return m_throwEintr; }

  virtual SAnsiString ReadString() = 0;
  virtual void WriteString(SAnsiString const& text) = 0;

  // The descriptors of one side and its read buffer, shared by the copies
  // of one pipe object (opaque to users).
  struct Handles;

 protected:
  SAnsiString ReadStringHelper(Handles& handles);
  void WriteStringHelper(int fd, SAnsiString const& text);

 private:
  unsigned int m_timeout;
  bool m_useTimeout;
  bool m_throwEintr;
};

// The parent's side: both pipes, and the child's ends as texts.
class QUENLIB_API CSIPipeServer : public CSIPipe {
 public:
  CSIPipeServer(unsigned short timeout, bool useTimeout, bool throwEintr);
  ~CSIPipeServer() override;
  CSIPipeServer(CSIPipeServer const&) = default;
  CSIPipeServer& operator=(CSIPipeServer const&) = default;

  // The child's read end and write end, as hexadecimal descriptor texts.
  SAnsiString GetReadPipe() const;
  SAnsiString GetWritePipe() const;
  // After the child has started: closes the child's ends in this process.
  void ClosePipesOnExec();

  // The parent's own ends.
  int theReadPipeHandle() const;
  int theWritePipeHandle() const;

  SAnsiString ReadString() override;
  void WriteString(SAnsiString const& text) override;

 private:
  std::shared_ptr<Handles> m_handles;
};

// The child's side, opened from the texts its parent passed.
class QUENLIB_API CSIPipeClient : public CSIPipe {
 public:
  CSIPipeClient(SAnsiString const& readPipe, SAnsiString const& writePipe, unsigned short timeout,
                bool useTimeout, bool throwEintr);
  // A client on one pipe of its own (what it writes, it reads back) until
  // SetPipes gives it its parent's ends.
  CSIPipeClient(unsigned short timeout, bool useTimeout, bool throwEintr);
  ~CSIPipeClient() override;
  CSIPipeClient(CSIPipeClient const&) = default;
  CSIPipeClient& operator=(CSIPipeClient const&) = default;

  // Takes the two descriptor texts; false when either is not hexadecimal.
  bool SetPipes(SAnsiString const& readPipe, SAnsiString const& writePipe);

  SAnsiString ReadString() override;
  void WriteString(SAnsiString const& text) override;

 private:
  std::shared_ptr<Handles> m_handles;
};

}  // namespace QuenLibA500
