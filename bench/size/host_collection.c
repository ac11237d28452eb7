/* host_collection.c: a host of the collection service alone. */
#include <kep/Collect.h>

static CollectItem *item;

static int32_t collect(int32_t requestType) {
  Collect_PutInt(item, 1, requestType);
  Collect_PutLong(item, 2, 0);
  Collect_PutString(item, 3, "ok", 0);
  Collect_PutStruct(item, 4, "ok", 2);
  return 0;
}

int main(void) {
  item = Collect_New("system", collect, collect);
  return Collect_Init(0x0B010000);
}
