// decimalDigits.cpp -- decimal digits on macOS: ecvt(3) and fcvt(3), which return any number of exact
// digits, but in a buffer that all threads share.
// Tests: tests/unit/darwin_test.cpp

#include "platform/decimalDigits.h"

#include <pthread.h>
#include <stdlib.h>
#include <string.h>

namespace {

using Converter = char *(double, int, int *, int *);

pthread_mutex_t converterMutex = PTHREAD_MUTEX_INITIALIZER;

char *CopyOfDigits(Converter *converter, double value, int count, int *point) {
  int sign;
  pthread_mutex_lock(&converterMutex);
  const char *const digits = converter(value, count, point, &sign);
  char *const copy = digits == nullptr ? nullptr : strdup(digits);
  pthread_mutex_unlock(&converterMutex);
  return copy;
}

}  // namespace

char *Platform_SignificantDigits(double value, int count, int *point) {
  return CopyOfDigits(ecvt, value, count, point);
}

char *Platform_FixedDigits(double value, int count, int *point) {
  return CopyOfDigits(fcvt, value, count, point);
}
