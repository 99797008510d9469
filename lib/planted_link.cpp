#include "lib/planted_link.h"

#include <sys/stat.h>
#include <unistd.h>

void remove_planted_link(const char* path) {
  struct stat st {};
  if (lstat(path, &st) == 0 && S_ISLNK(st.st_mode)) unlink(path);
}
