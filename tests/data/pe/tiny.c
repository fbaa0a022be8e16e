__declspec(dllexport) int first(int x) { return x + 1; }
static int helper(int x) { return x * 3; }
__declspec(dllexport) int second(int x) { return helper(x) - 2; }
int __stdcall DllMainCRTStartup(void* h, unsigned r, void* p) { (void)h; (void)r; (void)p; return 1; }
