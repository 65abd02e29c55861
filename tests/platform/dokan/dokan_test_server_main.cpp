// A drive server for the tests: serves an in-memory file system on a letter
// until the mount point is removed, writing every call of its table to a
// file. Exit code: the negated DokanMain result (0 after an unmount).
//   qb_dokan_test_server <letter> <calls file> [single|multi]
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "mem_fs.h"
#include "platform/dokan/dokan.h"

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: %s <letter> <calls file> [single|multi]\n", argv[0]);
    return 100;
  }
  FILE* calls = fopen(argv[2], "a");
  if (!calls) return 101;
  std::mutex callsMutex;
  qbtest::MemFs fs;
  fs.PutFile("\\hello.txt", "hello\n");
  fs.SetSink([&](const qbtest::FsCall& call) {
    std::lock_guard lock(callsMutex);
    fprintf(calls, "%s\n", qbtest::CallLine(call).c_str());
    fflush(calls);
  });
  const std::string mountPoint = std::string(argv[1]) + ":\\";
  DOKAN_OPTIONS options;
  fs.FillOptions(&options, mountPoint.c_str(), argc > 3 && strcmp(argv[3], "single") == 0);
  DOKAN_OPERATIONS ops = qbtest::MemFs::Operations();
  DokanInit();
  const int rc = DokanMain(&options, &ops);
  DokanShutdown();
  fs.SetSink(nullptr);
  fclose(calls);
  return -rc;
}
