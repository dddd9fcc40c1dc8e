// decimalDigits.cpp -- decimal digits on macOS: ecvt(3) and fcvt(3), which give as many exact
// digits as they are asked for, but in memory that they share among all threads.
//
// Tests: tests/unit/darwin_test.cpp

#include "platform/decimalDigits.h"

#include <pthread.h>
#include <stdlib.h>
#include <string.h>

namespace {

using Converter = char *(double, int, int *, int *);

pthread_mutex_t converterMutex = PTHREAD_MUTEX_INITIALIZER;

bool CopyDigits(Converter *converter, double value, int count, PlatformDecimal *decimal) {
  int sign;
  pthread_mutex_lock(&converterMutex);
  const char *const digits = converter(value, count, &decimal->point, &sign);
  if (digits != nullptr) {
    // What is longer than the room ends in zeros.
    decimal->count = strnlen(digits, sizeof decimal->digits);
    memcpy(decimal->digits, digits, decimal->count);
  }
  pthread_mutex_unlock(&converterMutex);
  return digits != nullptr;
}

}  // namespace

bool Platform_SignificantDigits(double value, int count, PlatformDecimal *decimal) {
  return CopyDigits(ecvt, value, count, decimal);
}

bool Platform_FixedDigits(double value, int count, PlatformDecimal *decimal) {
  return CopyDigits(fcvt, value, count, decimal);
}
