#pragma once

#include "common/xml.h"

#include <string>
#include <vector>

namespace tarvik::ctl {

/// The text of share/app-meta.rng, as the program was built with it.
extern const char kMetadataSchema[];

/// Where a document does not fit the schema.
struct SchemaError {
    int line;  ///< 0 when there is none to name
    std::string text;
};

/**
 * Finds each name and value that the schema does not know, and whatever else it does not take
 * where all names and values are right. Time grows with the document only.
 * @param document  from read_metadata_tree; it is taken apart.
 * @return the mistakes, by line; none for a document that is valid.
 */
std::vector<SchemaError> schema_errors(XmlDoc document);

}  // namespace tarvik::ctl
