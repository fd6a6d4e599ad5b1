# Self instructions per function and per object from a callgrind dump
# (one event); the cost line after "calls=" is a call's inclusive cost.
function ref(s, names,    id, rest) {
  if (match(s, /^\([0-9]+\)/)) {
    id = substr(s, 2, RLENGTH - 2); rest = substr(s, RLENGTH + 1); sub(/^ /, "", rest)
    if (rest != "") names[id] = rest
    return id
  }
  return s
}
/^ob=/ { ob = ref(substr($0, 4), obn); next }
/^cob=/ { ref(substr($0, 5), obn); next }
/^fn=/ { fn = ref(substr($0, 4), fnn); fnob[fn] = ob; next }
/^cfn=/ { ref(substr($0, 5), fnn); next }
/^calls=/ { skip = 1; next }
/^[0-9+*-]/ { if (skip) { skip = 0; next } c = $NF + 0; self[fn] += c; objself[fnob[fn]] += c; total += c; next }
END {
  for (f in self) { o = obn[fnob[f]]; sub(/.*\//, "", o); printf "F %d %s [%s]\n", self[f], fnn[f], o }
  for (o in objself) { n = obn[o]; sub(/.*\//, "", n); printf "O %d %s\n", objself[o], n }
  printf "T %d\n", total
}
