static void (*volatile opaque_call)() = [] {};

// Reads in a frame that has an object to destroy.
int VELT_FUNCTION(int const volatile* address) {
  struct Object {
    ~Object() { opaque_call(); }
  } const object;
  int const value = *address;
  opaque_call();
  return value;
}
