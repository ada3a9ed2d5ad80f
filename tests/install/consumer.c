/* A program outside the library's build that uses an installed copy of it:
 * begins the process, initialises the kernel, takes and gives back a block of
 * the system pool and ends. Built by scripts/consumer-check.sh through
 * find_package and through pkg-config. Written in C, so the public headers
 * are checked to compile as C too. */
#include <zk.h>

#include <stdio.h>

int main(void) {
    void* block;
    if (zkBeginProcess(0) < 0) return 1;
    if (zkInitializeEx(1u << 20, 64) < 0) return 2;
    block = zkAllocateSystemMemory(100, ZK_ALLOC_DEFAULT, 0);
    if (block == NULL) return 3;
    zkFreeSystemMemory(block);
    zkTerminate();
    zkEndProcess();
    printf("consumer: linked against qaxkrnl and ran\n");
    return 0;
}
