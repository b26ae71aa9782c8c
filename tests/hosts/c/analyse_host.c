/*
 * A host written in C: calls the library entry by its plain name, as a
 * program in any language would, and prints what it returned.
 *
 *   analyse_host <path> <frameMode> <fps> <startIndex> <endIndex>
 */
#include <stdio.h>
#include <stdlib.h>

#include <LoadAnalyzer.h>

int main(int argc, char** argv) {
    if (argc != 6) {
        fprintf(stderr, "usage: %s <path> <frameMode> <fps> <startIndex> <endIndex>\n", argv[0]);
        return 2;
    }
    const double seconds =
        analyse(argv[1], atoi(argv[2]), atoi(argv[3]), atoi(argv[4]), atoi(argv[5]));
    printf("analyse returned: %.17g\n", seconds);
    return 0;
}
