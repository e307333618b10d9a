#pragma once

// What an application's data model must fulfil before it may touch a database. All of these throw
// SchemaException.

namespace quillmere {

struct Model;
class Schema;

// Names, flags, relations and indexes: the schema in itself. It may be not linked yet.
void verifySchema(const Schema& schema);

// The bookkeeping of IDs and UIDs: those of all elements against each other and against the model's
// last IDs.
void verifyModelIds(const Model& model);

// An incoming schema against the stored one: a known ID must come with its UID, and a known UID
// with its ID.
void verifyIncoming(const Schema& incoming, const Schema& existing);

}  // namespace quillmere
