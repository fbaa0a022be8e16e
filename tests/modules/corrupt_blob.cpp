// A module whose resource blob claims more bytes than it has: the loader
// must refuse it without reading past the array.
extern "C" __attribute__((visibility("default"), used, section(".qnres"), aligned(16)))
const unsigned char quarnel_resources[36] = {
    'Q', 'N', 'R', 'S', 1,  0, 20, 0,  // magic, version 1, entry size 20
    1,   0,   0,   0,   0,  1, 0,  0,  // one entry, blob size 256
    10,  0,   0,   0,   1,  0, 0,  0,  // type 10, id 1
    0,   0,   0,   0,   36, 0, 0,  0,  // no name, data at 36
    4,   0,   0,   0,                  // 4 bytes
};
