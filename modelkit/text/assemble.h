// A model from its text.
#ifndef OPKIT_MODELKIT_TEXT_ASSEMBLE_H
#define OPKIT_MODELKIT_TEXT_ASSEMBLE_H

#include "modelkit/json_fields.h"
#include "modelkit/model.h"

namespace opkit::modelkit::text {

// Throws FileError, which names the field, and BuildError where the model passes 1 GiB.
Model Assemble(const JsonFields& fields);

// Throws FileError with all fields that the text must have and has not.
void RequireFields(const JsonFields& fields);

}  // namespace opkit::modelkit::text

#endif  // OPKIT_MODELKIT_TEXT_ASSEMBLE_H
