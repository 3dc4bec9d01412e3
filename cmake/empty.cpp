// Lets a library be defined before its folders add their sources.
