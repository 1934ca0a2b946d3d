/* Strict text-to-number conversions.
 *
 * Every function takes the destination first, the text second and an optional
 * end pointer third; the integer functions also take a base (0 detects "0x"
 * hexadecimal and leading-zero octal, 2-36 are used as given without skipping
 * any prefix). Leading white space and one sign are accepted. Results:
 *   0                      *endptr points after the number
 *   ERR_INVALID_PARAMETER  value or str is null, or the base is not 0 or 2-36
 *   ERR_CONVERT_NO_DIGITS  no digit could be read
 *   ERR_CONVERT_RANGE      the value does not fit the exact range of the type;
 *                          unsigned types refuse any '-', even "-0"
 * On failure *value is 0 and *endptr is NULL.
 *
 * The floating-point functions read decimal digits with an optional fraction
 * and exponent ("-12.5e1"); no "inf", "nan" or hexadecimal forms. They refuse
 * a total decimal exponent (fraction digits included) outside -1021..1024 for
 * double and -125..128 for float; within those limits a value beyond the
 * type's range becomes infinity or zero. The last place is not guaranteed to
 * be correctly rounded. The locale is never consulted.
 */
#ifndef VEKUTIL_CONVERT_H
#define VEKUTIL_CONVERT_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

VEK_API int convert_to_d(double* value, const char* str, char** endptr);
VEK_API int convert_to_f(float* value, const char* str, char** endptr);

VEK_API int convert_to_ull(unsigned long long* value, const char* str, char** endptr, int base);
VEK_API int convert_to_ll(long long* value, const char* str, char** endptr, int base);
VEK_API int convert_to_ui(unsigned int* value, const char* str, char** endptr, int base);
VEK_API int convert_to_i(int* value, const char* str, char** endptr, int base);
VEK_API int convert_to_us(unsigned short* value, const char* str, char** endptr, int base);
VEK_API int convert_to_s(short* value, const char* str, char** endptr, int base);
VEK_API int convert_to_uc(unsigned char* value, const char* str, char** endptr, int base);
VEK_API int convert_to_c(char* value, const char* str, char** endptr, int base);

VEK_END_DECLS

#endif
