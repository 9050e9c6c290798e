/* The exported routines below the operators, by subsystem, with the records they take. They are what operators are
 * written with; a program that only runs models needs none of them.
 *
 * Pointers are not checked unless a comment says so. Where a comment says "with a message", it goes to standard output
 * with the reporting function's name and source line in front. */
#ifndef OPKIT_HELPERS_H
#define OPKIT_HELPERS_H

#include "opkit/helpers/broadcast.h"
#include "opkit/helpers/control.h"
#include "opkit/helpers/custom.h"
#include "opkit/helpers/detection.h"
#include "opkit/helpers/frame.h"
#include "opkit/helpers/matrix.h"
#include "opkit/helpers/movement.h"
#include "opkit/helpers/selection.h"

#endif /* OPKIT_HELPERS_H */
