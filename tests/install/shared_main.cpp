extern "C" int continuedRing();

int main() { return continuedRing(); }
