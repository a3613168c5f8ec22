/* A host program written in C: links against libhemiray.so and computes the view
 * factors of the model file named by its argument, in place. Exits 0 when the
 * library reports success and the result file holds the closing row section. */
#include <hemiray/raytracing.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s MODEL\n", argv[0]);
        return 2;
    }
    const int ok = raytracing_lib(0, argv[1], NULL, 1, 2, 1, NULL, "c host", false, false, 0);
    if (ok != 1) return 1;

    FILE* result = fopen(argv[1], "r");
    if (!result) return 1;
    char line[4096];
    char last[4096] = "";
    int rowSection = 0;
    while (fgets(line, sizeof line, result)) {
        if (strncmp(line, "(308 (", 6) == 0) rowSection = 1;
        strcpy(last, line);
    }
    fclose(result);
    return rowSection && strcmp(last, "))\n") == 0 ? 0 : 1;
}
