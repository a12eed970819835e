// A program around the precompiled header.
int main() {}
