// For targets that have headers alone.
