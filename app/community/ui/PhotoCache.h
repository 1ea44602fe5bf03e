// Photos from the network go through a disk cache in the app's cache folder.
#pragma once

class QQmlEngine;

// Gives the engine's image loading a network access with that cache (once;
// an engine that has a factory keeps it).
void installPhotoCache(QQmlEngine* engine);
