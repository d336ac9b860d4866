#pragma once

namespace desk {

/// Offers the embedder's private interface to the plug-in, or takes the offer back when the set says that there is
/// none. It answers from the set:
///
///   its name            "set/embedder/name"
///   an operation        the fault "GenericSyncCall" of that operation, which gives the status and no reply; else the
///                       reply that the set names for it; else what a set in order replies
///   a privilege check   "set/embedder/privilege/<URI>", false when the set says nothing of it
///
/// Call it before a plug-in is loaded. The interface may be called on any thread.
void OfferEmbedder();

}  // namespace desk
