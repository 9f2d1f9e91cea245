# Associative arrays, splitting and concatenation over generated text.
BEGIN {
    seed = 7
    for (i = 0; i < 100000; i++) {
        seed = seed * 16807 % 2147483647
        word = "w" (seed % 5000)
        count[word]++
        text = text word " "
        if (length(text) > 10000) {
            fields += split(text, parts, " ")
            text = ""
        }
    }
    PROCINFO["sorted_in"] = "@ind_str_asc"
    for (word in count) {
        total += count[word]
        if (shown++ < 10) print word, count[word]
    }
    print total, fields, length(count)
}
