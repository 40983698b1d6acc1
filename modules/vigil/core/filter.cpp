/*
 * Module-wide facts about filters: how many exist, and whether an expired
 * binding is deleted (delete-on-expiry, changed at run time by management).
 */
#include "vigil_vmi.h"

u64 numFilters = 0;
i64 delOnExpiry = 1;

bool GetDeleteExpiry(void) {
   return delOnExpiry != 0;
}

void SetDeleteExpiry(i8 value) {
   delOnExpiry = value;
}
