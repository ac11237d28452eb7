/* host_logger.c: a host of the logger alone. */
#include <kep/ZuLogger.h>

int main(void) {
  ZuLogger *logger = ZuLogger_New(255);
  ZuLogger_Write(logger, 1, "up and running");
  ZuLogger_ShowInfo(logger);
  ZuLogger_Release(logger);
  return 0;
}
