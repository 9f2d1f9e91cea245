-- Tables, an index, a join, updates and deletes on generated rows, in memory.
CREATE TABLE t(id INTEGER PRIMARY KEY, grp INTEGER, name TEXT, payload BLOB);
WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100000)
INSERT INTO t SELECT i, i % 97, printf('name%06d', i * 7919 % 100000), zeroblob(i % 500) FROM n;
CREATE INDEX t_name ON t(name);
SELECT grp, count(*), sum(length(payload)), min(name), max(name) FROM t GROUP BY grp ORDER BY grp LIMIT 5;
SELECT count(*) FROM t a JOIN t b ON a.name = b.name AND a.id < b.id;
UPDATE t SET name = name || '-' || grp WHERE id % 3 = 0;
DELETE FROM t WHERE id % 5 = 0;
SELECT count(*), sum(length(name)) FROM t;
SELECT group_concat(name, ',') FROM (SELECT name FROM t ORDER BY name DESC LIMIT 5);
