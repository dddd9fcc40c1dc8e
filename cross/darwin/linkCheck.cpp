// linkCheck.cpp -- see CMakeLists.txt.
int main() {
  return 0;
}
