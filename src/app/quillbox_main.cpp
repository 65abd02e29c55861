// The program: every role of an instance starts here.
#include "app/entry.h"

int main(int argc, char** argv) { return qb::app::QuillboxEntry(argc, argv); }
