// pipe_child: the child the process tests start. With "--exit N" or
// "--sleep S" it just does that; otherwise argv[1] and argv[2] are its pipe
// handle texts and it answers frames until told to stop:
//   echo:X -> X        upper:X -> X in capitals   big:N -> N bytes
//   empty  -> ""       fds -> its open descriptors, space-separated
//   exit:N -> "bye", then exits N                silent -> sleeps, no answer
#include <quenlib/csipipe.h>

#include <dirent.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace QuenLibA500;

static std::string OpenDescriptors() {
  std::string list;
  DIR* d = opendir("/proc/self/fd");
  if (!d) return list;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] == '.' || std::atoi(e->d_name) == dirfd(d)) continue;
    list += (list.empty() ? "" : " ") + std::string(e->d_name);
  }
  closedir(d);
  return list;
}

static bool Answer(CSIPipeClient& pipe, std::string const& request) {
  auto arg = [&](char const* verb) { return request.substr(std::strlen(verb)); };
  if (request.rfind("echo:", 0) == 0) {
    pipe.WriteString(arg("echo:").c_str());
  } else if (request.rfind("upper:", 0) == 0) {
    std::string s = arg("upper:");
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    pipe.WriteString(s.c_str());
  } else if (request.rfind("big:", 0) == 0) {
    std::string s(std::strtoul(arg("big:").c_str(), nullptr, 10), 'b');
    pipe.WriteString(SAnsiString(s.data(), static_cast<unsigned>(s.size())));
  } else if (request == "empty") {
    pipe.WriteString("");
  } else if (request == "fds") {
    pipe.WriteString(OpenDescriptors().c_str());
  } else if (request.rfind("exit:", 0) == 0) {
    pipe.WriteString("bye");
    std::exit(std::atoi(arg("exit:").c_str()));
  } else if (request == "silent") {
    sleep(30);
    return false;
  }
  return true;
}

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--exit") == 0) return std::atoi(argv[2]);
  if (argc == 3 && std::strcmp(argv[1], "--sleep") == 0) return sleep(static_cast<unsigned>(std::atoi(argv[2])));
  if (argc < 3) return 2;
  try {
    CSIPipeClient pipe(argv[1], argv[2], 20, true, false);
    for (;;) {
      SAnsiString request = pipe.ReadString();
      if (!Answer(pipe, std::string(request.getString(), request.getLength()))) return 0;
    }
  } catch (CSIPipeException const&) {
    return 3;  // the parent went away
  }
}
