#ifndef HALVARINE_BASE_FILE_H
#define HALVARINE_BASE_FILE_H

// An owner of a stdio stream: closed when it goes.

#include <stdio.h>

#include <memory>

struct FileCloser {
  void operator()(FILE* f) const { fclose(f); }
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

#endif
