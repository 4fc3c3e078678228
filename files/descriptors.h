#pragma once

namespace files {

/// Opens those of the descriptors 0, 1 and 2 that are closed, so that no file or pipe of the
/// program's own can get such a number and be taken for its input, output or log. Nothing can be
/// written to what is opened here: a write fails as it would on a closed descriptor. To be called
/// before anything else is opened.
void openStandardDescriptors();

/// Raises the soft limit of open descriptors to the hard one: a walk holds one for each level of
/// the tree. A limit that cannot be raised stays as it is.
void raiseDescriptorLimit();

}  // namespace files
