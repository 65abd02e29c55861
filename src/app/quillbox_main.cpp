// Placeholder entry point until the instance roles land.
#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "/?") == 0) {
    std::fprintf(stderr, "Quillbox: usage text follows with the command line.\n");
    return 0;
  }
  return 0;
}
