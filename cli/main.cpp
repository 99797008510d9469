// kolta: drives koltad from a shell or a script.
#include <cstdio>

int main() {
  std::fputs("kolta: not built yet\n", stderr);
  return 2;
}
