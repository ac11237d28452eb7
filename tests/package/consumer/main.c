/* A host in C, small enough to show that an installed kep compiles, links and runs with nothing but a C compiler, with
 * a lock as well: the object of KepPosix_UseThreads asks the library for another. */
#include <kep/kep.h>
#include <string.h>

int main(void) {
  KepPosix_UseThreads();
  ZuLogger *logger = ZuLogger_New(ZULOGGER_ACCEPT_ALL | ZULOGGER_KEEP);
  ZuBuf *text = ZuBuf_New(1, 0, 64);
  const char *kept = "";
  ZuLogger_Write(logger, ZULOGGER_INFO, "linked from C");
  ZuLogger_CopyToBuf(logger, text);
  ZuBuf_Append(text, "", 1);
  ZuBuf_Get(text, 0, (void **)&kept);
  ZuPrint_Show(kept, 0);
  return strstr(kept, "linked from C\n") && strcmp(Kep_Version(), KEP_VERSION) == 0 ? 0 : 1;
}
