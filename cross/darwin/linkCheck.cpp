// linkCheck.cpp -- CMakeLists.txt says what it is for.
int main() {
  return 0;
}
