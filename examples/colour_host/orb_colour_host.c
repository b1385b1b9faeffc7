/* A colorimetry host in plain C: reads a spectrum from a CSV file
 * (wavelength_nm,value per line; a header line and # comments allowed) and
 * prints its colorimetry, one quantity per line.
 *   orb_colour_host SPECTRUM.csv
 * Exit status: 0 done, 1 the file cannot be read or a line is not
 * wavelength,value (the line is named), 2 bad use, 3 the CIE tables could
 * not be loaded, 4 the spectrum was refused (the reason is printed). */
#include <ctype.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "orb_colour.h"

typedef struct spectrum {
    double* wavelength;
    double* value;
    int count;
    int capacity;
} spectrum;

static int append(spectrum* s, double wavelength, double value) {
    if (s->count == s->capacity) {
        int capacity = s->capacity ? 2 * s->capacity : 512;
        double* w = realloc(s->wavelength, capacity * sizeof(double));
        double* v;
        if (w == NULL) return 0;
        s->wavelength = w;
        v = realloc(s->value, capacity * sizeof(double));
        if (v == NULL) return 0;
        s->value = v;
        s->capacity = capacity;
    }
    s->wavelength[s->count] = wavelength;
    s->value[s->count] = value;
    s->count++;
    return 1;
}

/* Parses "number , number" with nothing else but blanks; 1 on success. */
static int parse_pair(const char* line, double* a, double* b) {
    char* end;
    *a = strtod(line, &end);
    if (end == line) return 0;
    while (isspace((unsigned char)*end)) end++;
    if (*end++ != ',') return 0;
    line = end;
    *b = strtod(line, &end);
    if (end == line) return 0;
    while (isspace((unsigned char)*end)) end++;
    return *end == '\0';
}

static int read_csv(const char* path, spectrum* s) {
    char line[512];
    int number = 0, data_lines = 0;
    FILE* f = fopen(path, "r");
    if (f == NULL) {
        perror(path);
        return 0;
    }
    while (fgets(line, sizeof line, f) != NULL) {
        char* p = line;
        double w, v;
        number++;
        while (isspace((unsigned char)*p)) p++;
        if (*p == '\0' || *p == '#') continue;
        if (!parse_pair(p, &w, &v)) {
            /* The first line that is not a comment may name the columns. */
            if (data_lines == 0 && !isdigit((unsigned char)*p) && *p != '-' && *p != '+' && *p != '.') {
                data_lines++;
                continue;
            }
            fprintf(stderr, "%s:%d: not wavelength_nm,value: %s", path, number, line);
            fclose(f);
            return 0;
        }
        data_lines++;
        if (!append(s, w, v)) {
            fprintf(stderr, "%s: no memory\n", path);
            fclose(f);
            return 0;
        }
    }
    fclose(f);
    return 1;
}

static void print_colorimetry(const orb_colorimetry* c) {
    int i;
    printf("X %.6g\nY %.6g\nZ %.6g\n", c->X, c->Y, c->Z);
    printf("x %.5f\ny %.5f\nu' %.5f\nv' %.5f\n", c->x, c->y, c->u_prime, c->v_prime);
    printf("X10 %.6g\nY10 %.6g\nZ10 %.6g\nx10 %.5f\ny10 %.5f\n", c->X10, c->Y10, c->Z10, c->x10, c->y10);
    if (isnan(c->cct_k)) {
        printf("CCT none (outside 1000 to 100000 K)\n");
        return;
    }
    printf("CCT %.0f K\nDuv %.5f\n", c->cct_k, c->duv);
    printf("Ra %.1f%s\nR", c->ra, c->ra_meaningful ? "" : " (not meaningful: too far from the reference illuminant)");
    for (i = 0; i < ORB_COLOUR_SPECIAL_INDICES; i++) printf(" %.1f", c->r[i]);
    printf("\ndelta C %.5f\n", c->delta_c);
    printf("peak %.1f nm\ncentroid %.1f nm\n", c->peak_nm, c->centroid_nm);
    if (isnan(c->dominant_nm))
        printf("dominant none (the white point)\n");
    else if (c->dominant_nm < 0)
        printf("complementary %.1f nm\n", -c->dominant_nm);
    else
        printf("dominant %.1f nm\n", c->dominant_nm);
    printf("purity %.4f\n", c->purity);
}

int main(int argc, char** argv) {
    spectrum s = {NULL, NULL, 0, 0};
    orb_colour* colour;
    orb_colorimetry result;
    char message[512];
    int status;

    if (argc != 2 || argv[1][0] == '-') {
        fprintf(stderr, "usage: orb_colour_host SPECTRUM.csv\n");
        return 2;
    }
    if (!read_csv(argv[1], &s)) return 1;
    status = orb_colour_create(&colour, NULL, message, sizeof message);
    if (status != ORB_COLOUR_OK) {
        fprintf(stderr, "%s\n", message);
        free(s.wavelength);
        free(s.value);
        return 3;
    }
    status = orb_colour_compute(colour, s.wavelength, s.value, s.count, &result);
    if (status == ORB_COLOUR_OK) print_colorimetry(&result);
    else fprintf(stderr, "%s: %s\n", argv[1], orb_colour_result_text(status));
    orb_colour_destroy(colour);
    free(s.wavelength);
    free(s.value);
    return status == ORB_COLOUR_OK ? 0 : 4;
}
