/* A host in C, small enough to show that an installed kep compiles, links and runs with nothing but a C compiler. */
#include <kep/kep.h>
#include <string.h>

int main(void) {
  ZuLogger *logger = ZuLogger_New(0xFF);
  ZuBuf *text = ZuBuf_New(1, 0, 64);
  const char *kept = "";
  ZuLogger_Append(logger, 1, 0, "linked from C");
  ZuLogger_ShowToBuf(logger, text);
  ZuBuf_Append(text, "", 1);
  ZuBuf_Get(text, 0, (void **)&kept);
  ZuPrint_Show(kept, 0);
  return strstr(kept, "linked from C\n") ? 0 : 1;
}
