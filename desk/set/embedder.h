#pragma once

namespace desk {

/// Offers the embedder's private interface to the plug-in, or withdraws it if the set is configured without one. Its
/// answers come from the set:
///
///   its name            "set/embedder/name"
///   an operation        the fault "GenericSyncCall" of that operation, which gives the status and no reply; else the
///                       reply configured in the set; else the reply of a working set
///   a privilege check   "set/embedder/privilege/<URI>", false if not configured
///
/// Must be called before a plug-in is loaded. The interface may be called on any thread.
void OfferEmbedder();

}  // namespace desk
