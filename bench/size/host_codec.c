/* host_codec.c: a host of the codec alone. */
#include <kep/ZuBuffer.h>

int main(void) {
  uint8_t record[32];
  uint32_t value;
  ZuBuffer_Pack(record, "B4sI", 1, "temp", 20);
  return ZuBuffer_UNPack("B4sI", record, (void *)0, (void *)0, &value) - ZuBuffer_GetPackSize("BHI", (void *)0);
}
